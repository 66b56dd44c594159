#include <string>
#include <vector>

#include "export/template_exporter.h"
#include "tests/support/export_fixture.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

constexpr const char* two_templates =
    "BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC\n"
    "BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,L4_SRC_PORT=L4_PORT_SRC\n";
// clang-format off
const bytes template_set = {
    0, 0, 0, 24,
    1, 0, 0, 2,   0, 8, 0, 4,   0, 7, 0, 2,
    1, 1, 0, 1,   0, 8, 0, 4};
// clang-format on
const bytes one_record = {1, 0, 0, 12, 0xC0, 0x00, 0x02, 0x01, 0x21, 0x22, 0, 0};
const bytes two_records = {1,    0,    0,    16,   0xC0, 0x00, 0x02, 0x01,
                           0x21, 0x22, 0xC0, 0x00, 0x02, 0x01, 0x21, 0x22};

class ExportNf9 : public export_fixture {
  protected:
    void init(std::string params) { exporter_ = keep(exporter_nf9_init(params.data(), table_)); }
    void connect(const std::string& more = "", const std::string& templates = two_templates) {
        init(collector_->params(",template-file=" + write_file(templates) + more));
    }
    uint32_t export_flow() { return exporter_nf9_export(exporter_, &flow_); }
    void export_flows(int count) {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(0u, export_flow());
    }
    uint32_t flush() { return exporter_nf9_flush(exporter_); }
    bytes receive_sets() {
        const bytes packet = receive();
        return packet.size() < 20 ? bytes{} : bytes(packet.begin() + 20, packet.end());
    }
    bytes export_one() {
        EXPECT_EQ(0u, export_flow());
        EXPECT_EQ(0u, flush());
        return receive_sets();
    }

    void* exporter_ = nullptr;
};

TEST_F(ExportNf9, DescribesItself) {
    EXPECT_STREQ("netflow-v9", exporter_nf9_desc()->name);
    EXPECT_STREQ(
        "Netflow v9 exporter exports data to network collector using netflow v9 protocol\n"
        "Parametres are (delimited by ','):\n host=hostname                (mandatory)\n port=port "
        "                   (default = 3001)\n ip=ip                        Protocol to connect "
        "with collector(4,6,46 or 64 - default is 46).\n source_id=id                 Exporter "
        "identification.\n template-file=filename       File with template parameters.\n "
        "template-refresh-time=time   Send templates to collector each 'time' seconds.\n "
        "template-refresh-packets=num Send templates to collector each 'num' packets.",
        exporter_nf9_desc()->description);
    EXPECT_EQ(0, exporter_nf9_desc()->data_size);
}

// ---- Packets ----

TEST_F(ExportNf9, PacketIsExactToTheByte) {
    connect(",source_id=16909060");
    uptime_ns = 0x1'0102'0304 * ms + 999'999;
    export_flow();
    flow_.l4protocol = 47;
    export_flow();
    EXPECT_EQ(0u, flush());
    // clang-format off
    const bytes expected = {
        0, 9, 0, 4,                                      // version, two templates and two records
        0x01, 0x02, 0x03, 0x04,                          // uptime
        0x5F, 0x5E, 0x10, 0x0A,                          // 1,600,000,010 s
        0, 0, 0, 0,                                      // sequence
        1, 2, 3, 4,                                      // source id
        0, 0, 0, 24,                                     // templates
        1, 0, 0, 2,   0, 8, 0, 4,   0, 7, 0, 2,
        1, 1, 0, 1,   0, 8, 0, 4,
        1, 0, 0, 12,
        0xC0, 0x00, 0x02, 0x01, 0x21, 0x22, 0, 0,
        1, 1, 0, 8,
        0xC0, 0x00, 0x02, 0x01};
    // clang-format on
    EXPECT_EQ(expected, receive());
}

TEST_F(ExportNf9, HeaderHasTheTimeOfTheLastExport) {
    connect();
    export_flow();
    advance(2 * second);
    export_flow();
    advance(7 * second);
    flush();
    const bytes packet = receive();
    EXPECT_EQ(12'000u, big_endian(packet, 4, 4));
    EXPECT_EQ(1'600'000'012u, big_endian(packet, 8, 4));
}

// A flow that is dropped sets the time too.
TEST_F(ExportNf9, HeaderTimeIsSetByDroppedFlows) {
    connect();
    export_flow();
    advance(2 * second);
    flow_.l3protocol = 6;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    flush();
    EXPECT_EQ(12'000u, big_endian(receive(), 4, 4));
}

TEST_F(ExportNf9, TemplatesTravelInTheFirstPacketOnly) {
    connect();
    EXPECT_EQ(join({template_set, one_record}), export_one());
    EXPECT_EQ(one_record, export_one());
}

TEST_F(ExportNf9, SequenceCountsPackets) {
    connect();
    for (uint32_t sequence = 0; sequence < 3; ++sequence) {
        export_flows(5);
        flush();
        EXPECT_EQ(sequence, big_endian(receive(), 12, 4));
    }
}

TEST_F(ExportNf9, NothingPendingSendsNothing) {
    connect();
    verbose_level = 4;
    EXPECT_EQ("VERBOSE: 4:Nothing to export\n", messages_of([&] { EXPECT_EQ(0u, flush()); }));
    verbose_level = 3;
    EXPECT_EQ("", messages_of([&] { flush(); }));
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(join({template_set, one_record}), export_one());
}

TEST_F(ExportNf9, NothingPendingCountsForNoRefresh) {
    connect(",template-refresh-packets=3");
    export_one();
    flush();
    flush();
    EXPECT_EQ(one_record, export_one());
    EXPECT_EQ(one_record, export_one());
    EXPECT_EQ(join({template_set, one_record}), export_one());
}

TEST_F(ExportNf9, FlowThatFitsNoTemplateIsDropped) {
    connect();
    flow_.l3protocol = 6;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    flush();
    EXPECT_TRUE(receive().empty());
}

// With n records held the next one leaves no room when 4 (the empty template) + roundup(4 + 6 n) +
// 24 (the template set) + 20 + 6 > 1450: for n = 233 that is 4 + 1404 + 50, for 232 1450.
TEST_F(ExportNf9, PacketLeavesBeforeItIsTooLong) {
    connect();
    export_flows(233);
    EXPECT_TRUE(receive().empty());
    export_flow();
    const bytes packet = receive();
    EXPECT_EQ(20u + 24 + 1404, packet.size());
    EXPECT_EQ(235u, big_endian(packet, 2, 2));
}

// ---- Sampling ----

TEST_F(ExportNf9, NewSamplingRateSendsTheRecordsBefore) {
    connect();
    export_one();
    export_flow();
    flow_.sampling = 100;
    export_flow();
    EXPECT_EQ(one_record, receive_sets());
    export_flow();
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportNf9, SamplingRateIsNotLookedAtBeforeTheFirstPacket) {
    connect();
    export_flow();
    flow_.sampling = 100;
    export_flow();
    EXPECT_TRUE(receive().empty());
    flush();
    EXPECT_EQ(join({template_set, two_records}), receive_sets());
    export_flow();  // the rate is looked at now, and nothing is pending
    export_flow();
    EXPECT_TRUE(receive().empty());
}

// ---- Clocks ----

TEST_F(ExportNf9, WallClockThatStepsBackSendsTheRecordsBefore) {
    connect();
    flow_.end = startup;
    export_flow();
    wall_ns -= 1 * second;
    EXPECT_EQ("", messages_of([&] { export_flow(); }));
    const bytes before = receive();
    EXPECT_EQ(1'600'000'010u, big_endian(before, 8, 4));
    EXPECT_EQ(3u, big_endian(before, 2, 2));
    EXPECT_TRUE(receive().empty());
    flush();
    EXPECT_EQ(1'600'000'009u, big_endian(receive(), 8, 4));
}

TEST_F(ExportNf9, StepWithinASecondIsNoFault) {
    connect();
    wall_ns += 500 * ms;
    export_flow();
    wall_ns -= 400 * ms;
    export_flow();
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportNf9, UptimeThatFallsBackSendsTheRecordsBefore) {
    connect();
    export_flow();
    uptime_ns -= 1 * ms;
    export_flow();
    EXPECT_EQ(join({template_set, one_record}), receive_sets());
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportNf9, FlowThatEndsInTheFutureLeavesAlone) {
    connect();
    export_flows(2);
    flow_.end = wall_ns + 1;
    EXPECT_EQ("", messages_of([&] { export_flow(); }));
    EXPECT_EQ(join({template_set, two_records}), receive_sets());
    bytes alone = one_record;
    alone[10] = 0xC0;  // padding: what the second record left
    EXPECT_EQ(alone, receive_sets());
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportNf9, FlowThatEndsNowIsNoFault) {
    connect();
    export_flow();
    flow_.end = wall_ns;
    export_flow();
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportNf9, FutureFlowLeavesAtOnceWhenNothingIsPending) {
    connect();
    flow_.end = wall_ns + 1;
    export_flow();
    EXPECT_EQ(join({template_set, one_record}), receive_sets());
}

TEST_F(ExportNf9, FutureFlowWithoutTemplateSendsTheRecordsBefore) {
    connect();
    export_flow();
    flow_.end = wall_ns + 1;
    flow_.l3protocol = 6;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    EXPECT_EQ(join({template_set, one_record}), receive_sets());
    EXPECT_TRUE(receive().empty());
}

// The report needs 5,000,000,000 seconds: a clock far in the future shows that it is there.
TEST_F(ExportNf9, ClockFaultsAreCountedForAReportFarAway) {
    connect();
    const auto fault = [&] {
        flow_.end = 0;
        export_flow();
        flow_.end = wall_ns + 1;
        return messages_of([&] { export_flow(); });
    };
    EXPECT_EQ("", fault());
    wall_ns = 5'000'000'000 * second;
    EXPECT_EQ("", fault());
    wall_ns += 1 * second;
    EXPECT_EQ("Machine time mangled :-( (3)\n", fault());
    EXPECT_EQ("", fault());
}

// ---- Templates again ----

TEST_F(ExportNf9, TemplatesFollowEvery2048thPacket) {
    connect();
    export_one();
    for (int packet = 2; packet <= 2048; ++packet)
        ASSERT_EQ(one_record, export_one()) << packet;
    EXPECT_EQ(join({template_set, one_record}), export_one());
    EXPECT_EQ(one_record, export_one());
}

TEST_F(ExportNf9, TemplatesFollowAFlush601SecondsLater) {
    connect();
    export_one();
    advance(600 * second);
    export_one();
    EXPECT_EQ(one_record, export_one());
    advance(1 * second);
    export_one();
    EXPECT_EQ(join({template_set, one_record}), export_one());
}

TEST_F(ExportNf9, TemplatesWaitForTheNextRecord) {
    connect(",template-refresh-packets=1");
    export_one();
    flush();
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(join({template_set, one_record}), export_one());
}

// ---- Sending ----

// The collector is gone: the system tells with the send after the one that found nobody.
TEST_F(ExportNf9, FailedSendLosesItsPacketAndKeepsTheNumber) {
    connect();
    const uint16_t port = collector_->port();
    export_one();
    collector_.reset();
    export_flow();
    EXPECT_EQ(0u, flush());  // number 1, lost on the way
    export_flow();
    EXPECT_EQ(0xFFFFFFFFu, flush());
    collector_ = std::make_unique<udp_collector>(port);
    ASSERT_EQ(port, collector_->port());
    export_flow();
    EXPECT_EQ(0u, flush());
    const bytes packet = receive();
    EXPECT_EQ(2u, big_endian(packet, 12, 4));
    EXPECT_EQ(32u, packet.size());
}

TEST_F(ExportNf9, Ipv6CollectorIsReached) {
    const int socket = ::socket(AF_INET6, SOCK_DGRAM, 0);
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(0, bind(socket, any, size));
    ASSERT_EQ(0, getsockname(socket, any, &size));
    for (const char* ip : {"6", "46", "64"}) {
        init("host=::1,port=" + std::to_string(ntohs(address.sin6_port)) + ",ip=" + ip +
             ",template-file=" + write_file(two_templates));
        export_flow();
        EXPECT_EQ(0u, flush());
        uint8_t packet[100];
        EXPECT_EQ(56, recv(socket, packet, sizeof packet, MSG_DONTWAIT)) << ip;
    }
    close(socket);
}

// Reported for 1024 packets, silent for the next 1024.
TEST_F(ExportNf9, ProgressIsReportedWhileBit10IsClear) {
    connect();
    verbose_level = 4;
    EXPECT_EQ("VERBOSE: 4:EXPORTER_SENT_PACKETS: 1\n", messages_of([&] { export_one(); }));
    for (int packet = 2; packet <= 1022; ++packet)
        messages_of([&] { export_one(); });
    EXPECT_EQ("VERBOSE: 4:EXPORTER_SENT_PACKETS: 1023\n", messages_of([&] { export_one(); }));
    for (int packet = 1024; packet <= 2047; ++packet)
        ASSERT_EQ("", messages_of([&] { export_one(); })) << packet;
    EXPECT_EQ("VERBOSE: 4:EXPORTER_SENT_PACKETS: 2048\n", messages_of([&] { export_one(); }));
    verbose_level = 3;
    EXPECT_EQ("", messages_of([&] { export_one(); }));
}

// ---- Start ----

TEST_F(ExportNf9, StartIsReportedAtLevelZero) {
    verbose_level = 0;
    EXPECT_EQ("VERBOSE: 0:Templates OK\nVERBOSE: 0:Export v9 OK\n",
              messages_of([&] { connect(); }));
}

TEST_F(ExportNf9, TransportIsAlwaysUdp) {
    connect(",protocol=tcp");
    EXPECT_EQ(join({template_set, one_record}), export_one());
}

TEST_F(ExportNf9, FaultsAtTheStartEndTheProgram) {
    struct expectation {
        std::string params;
        const char* message;
    };
    for (const auto& [params, message] : std::vector<expectation>{
             {"host=", "^Cfgline problem: host\nParameters decoding problem\n$"},
             {"port=7", "^Hostname parameter is mandatory for netflow v9 export\n$"},
             {"host=h,template-file=/none", "^Template config error\n$"},
             {"host=h,template-file=/dev/null", "^No templates found\n$"},
             {"host=127.0.0.1,ip=5,template-file=" + write_file(two_templates),
              "^Can't connect to collector\n$"}})
        EXPECT_EXIT(init(params), testing::ExitedWithCode(255), message) << params;
}

TEST_F(ExportNf9, BuiltinDefinitionsServe) {
    EXPECT_STREQ("/etc/kestrel/nf9-template.txt", netflow_v9_protocol.default_file);
    EXPECT_STREQ("template-file", netflow_v9_protocol.file_key);
    EXPECT_STREQ(
        "INPUT_SNMP=INPUT_INTERFACE,OUTPUT_SNMP=OUTPUT_INTERFACE,IP_PROTOCOL_VERSION=L3_PROTO,"
        "FIRST_SWITCHED=FLOW_START_RELATIVE_MSEC,LAST_SWITCHED=FLOW_END_RELATIVE_MSEC,"
        "IN_BYTES=BYTES,IN_PKTS=PACKETS,OUT_BYTES=BYTES,OUT_PKTS=PACKETS,PROTOCOL=L4_PROTO,",
        netflow_v9_protocol.builtin_head);
    template_protocol elsewhere = netflow_v9_protocol;
    elsewhere.default_file = "/none";
    template_exporter exporter = {.protocol = &elsewhere};
    EXPECT_EQ("Default template config (/none) NOT found. Using minimalistic built in.\n",
              messages_of([&] { load_templates(exporter, table_); }));
    keep(exporter.templates);
    ASSERT_EQ(8, exporter.templates->count);
    // IPv4 with ports and flags: of 12 getters and the longest of IPv4.
    const export_template& first = exporter.templates->templates[0];
    EXPECT_EQ(15, first.field_count);
    EXPECT_EQ(43, first.record_length);
}

}  // namespace
