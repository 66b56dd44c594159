#include <string>
#include <vector>

#include "export/template_exporter.h"
#include "tests/support/export_fixture.h"
#include "tests/support/tcp_collector.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

constexpr const char* two_templates =
    "BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC\n"
    "BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,L4_SRC_PORT=L4_PORT_SRC\n";
// Their set, by which every collector starts.
// clang-format off
const bytes template_set = {
    0, 2, 0, 24,
    1, 0, 0, 2,   0, 8, 0, 4,   0, 7, 0, 2,
    1, 1, 0, 1,   0, 8, 0, 4};
// clang-format on
const bytes tcp_record = {0xC0, 0x00, 0x02, 0x01, 0x21, 0x22};
const bytes padding = {0, 0};

class ExportIpfix : public export_fixture {
  protected:
    void init(std::string params) { exporter_ = keep(exporter_ipfix_init(params.data(), table_)); }
    void connect(const std::string& more = "", const std::string& templates = two_templates) {
        init(collector_->params(",template_file=" + write_file(templates) + more));
    }
    uint32_t export_flow() { return exporter_ipfix_export(exporter_, &flow_); }
    void export_flows(int count) {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(0u, export_flow());
    }
    uint32_t flush() { return exporter_ipfix_flush(exporter_); }
    // The next message without its header.
    bytes receive_sets() {
        const bytes message = receive();
        return message.size() < 16 ? bytes{} : bytes(message.begin() + 16, message.end());
    }
    // One record in one message; returns its sets.
    bytes export_one() {
        EXPECT_EQ(0u, export_flow());
        EXPECT_EQ(0u, flush());
        return receive_sets();
    }
    static bytes data_set(int records) {
        const auto length = static_cast<uint8_t>(4 + (6 * records + 3) / 4 * 4);
        bytes set = {1, 0, 0, length};
        for (int i = 0; i < records; ++i)
            set = join({set, tcp_record});
        set.resize(length);
        return set;
    }

    void* exporter_ = nullptr;
};

TEST_F(ExportIpfix, DescribesItself) {
    EXPECT_STREQ("ipfix", exporter_ipfix_desc()->name);
    EXPECT_STREQ(
        "IPFIX exporter exports data to network collector using IPFIX protocol\nParametres are "
        "(delimited by ','):\n host=hostname                (mandatory)\n port=port              "
        "      (default = 3001)\n ip=ip                        Protocol to connect with "
        "collector(4,6,46 or 64 - default is 46).\n protocol=proto               Protocol used to "
        "connect to collector - udp(default),tcp,sctp.\n source_id=id                 Exporter "
        "identification.\n template-file=filename       File with template parameters.\n "
        "template-refresh-time=time   Send templates to collector each 'time' seconds.\n "
        "template-refresh-packets=num Send templates to collector each 'num' packets.",
        exporter_ipfix_desc()->description);
    EXPECT_EQ(0, exporter_ipfix_desc()->data_size);
}

// ---- Messages ----

TEST_F(ExportIpfix, MessageIsExactToTheByte) {
    connect(",source_id=16909060");
    export_flows(2);
    flow_.l4protocol = 47;
    export_flow();
    EXPECT_EQ(0u, flush());
    // clang-format off
    const bytes expected = {
        0, 10, 0, 64,                                    // version, length
        0x5F, 0x5E, 0x10, 0x0A,                          // 1,600,000,010 s
        0, 0, 0, 0,                                      // sequence
        1, 2, 3, 4,                                      // observation domain
        0, 2, 0, 24,                                     // templates
        1, 0, 0, 2,   0, 8, 0, 4,   0, 7, 0, 2,
        1, 1, 0, 1,   0, 8, 0, 4,
        1, 0, 0, 16,                                     // two records and no padding
        0xC0, 0x00, 0x02, 0x01, 0x21, 0x22,
        0xC0, 0x00, 0x02, 0x01, 0x21, 0x22,
        1, 1, 0, 8,
        0xC0, 0x00, 0x02, 0x01};
    // clang-format on
    EXPECT_EQ(expected, receive());
}

TEST_F(ExportIpfix, ExportTimeIsThatOfTheFlush) {
    connect();
    export_flow();
    advance(5 * second);
    flush();
    EXPECT_EQ(1'600'000'015u, big_endian(receive(), 4, 4));
}

TEST_F(ExportIpfix, TemplatesTravelInTheFirstMessageOnly) {
    connect();
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
    EXPECT_EQ(data_set(1), export_one());
    EXPECT_EQ(data_set(1), export_one());
}

TEST_F(ExportIpfix, NothingPendingSendsNothing) {
    connect();
    EXPECT_EQ(0u, flush());
    verbose_level = 4;
    EXPECT_EQ("VERBOSE: 4:Nothing to export\n", messages_of([&] { EXPECT_EQ(0u, flush()); }));
    verbose_level = 3;
    EXPECT_EQ("", messages_of([&] { flush(); }));
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
}

TEST_F(ExportIpfix, SequenceCountsTheRecordsBefore) {
    connect();
    export_flows(30);
    flush();
    EXPECT_EQ(0u, big_endian(receive(), 8, 4));
    export_flows(12);
    flush();
    EXPECT_EQ(30u, big_endian(receive(), 8, 4));
    export_flow();
    flush();
    EXPECT_EQ(42u, big_endian(receive(), 8, 4));
}

TEST_F(ExportIpfix, NothingPendingCountsForNoRefresh) {
    connect(",template-refresh-packets=3");
    export_one();
    flush();
    flush();
    EXPECT_EQ(data_set(1), export_one());
    EXPECT_EQ(data_set(1), export_one());
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
}

TEST_F(ExportIpfix, FlowThatFitsNoTemplateIsDropped) {
    connect();
    flow_.l3protocol = 6;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    flush();
    EXPECT_TRUE(receive().empty());
}

// With n records held the next one leaves no room when 4 (the empty template) + roundup(4 + 6 n) +
// 24 (the template set) + 16 + 6 > 1450. That is so for n = 233: 4 + 1404 + 46, not for 232.
TEST_F(ExportIpfix, MessageLeavesBeforeItIsTooLong) {
    connect();
    export_flows(233);
    EXPECT_TRUE(receive().empty());
    export_flow();
    EXPECT_EQ(16u + 24 + 1404, receive().size());
    // Without the template set: n = 237 gives 4 + 1428 + 22.
    export_flows(236);
    EXPECT_TRUE(receive().empty());
    export_flow();
    EXPECT_EQ(16u + 1428, receive().size());
}

// Records of one byte after a template set of 12: the 1417th fits (1420 + 12 + 16 + 1), and rounds
// the estimate up to 1424, which is too much for a record of no bytes.
TEST_F(ExportIpfix, FlowThatFitsNoTemplateMayStillSendAFullMessage) {
    connect("", "BEGIN-TEMPLATE\nPROTOCOL=L3_IPV6_ADDR_SRC\n");
    flow_.l3protocol = 6;
    export_flows(1417);
    EXPECT_TRUE(receive().empty());
    flow_.l3protocol = 4;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    EXPECT_EQ(16u + 12 + 1424, receive().size());
}

// ---- Sampling ----

TEST_F(ExportIpfix, NewSamplingRateSendsTheRecordsBefore) {
    connect();
    export_flows(3);
    flow_.sampling = 100;
    export_flow();
    EXPECT_EQ(join({template_set, data_set(3)}), receive_sets());
    export_flow();
    EXPECT_TRUE(receive().empty());
    flush();
    EXPECT_EQ(data_set(2), receive_sets());
}

// The rate is not looked at before anything was measured, so the second record differs from 0.
TEST_F(ExportIpfix, SamplingRateOfTheFirstRecordIsNotKept) {
    connect();
    flow_.sampling = 100;
    export_flow();
    EXPECT_TRUE(receive().empty());
    export_flow();
    EXPECT_EQ(join({template_set, data_set(1)}), receive_sets());
}

TEST_F(ExportIpfix, SamplingRateOfADroppedFlowIsKept) {
    connect();
    export_flow();
    flow_.sampling = 100;
    flow_.l3protocol = 6;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    EXPECT_EQ(join({template_set, data_set(1)}), receive_sets());
    flow_.l3protocol = 4;
    export_flow();
    EXPECT_TRUE(receive().empty());
}

// ---- Templates again ----

TEST_F(ExportIpfix, TemplatesFollowEvery2048thMessage) {
    connect();
    export_one();
    for (int message = 2; message <= 2048; ++message)
        ASSERT_EQ(data_set(1), export_one()) << message;
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
    EXPECT_EQ(data_set(1), export_one());
}

TEST_F(ExportIpfix, TemplatesFollowAFlush601SecondsLater) {
    connect();
    export_one();
    advance(600 * second);
    export_one();
    EXPECT_EQ(data_set(1), export_one());
    advance(1 * second);
    EXPECT_EQ(data_set(1), export_one());
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
}

// A template set that waits is pending: the next flush sends it, with records or without.
TEST_F(ExportIpfix, TemplatesAloneLeaveWithTheNextFlush) {
    connect(",template-refresh-packets=2");
    export_one();
    export_one();
    flush();
    const bytes message = receive();
    EXPECT_EQ(16u + 24, message.size());
    EXPECT_EQ(2u, big_endian(message, 8, 4));
    flush();
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportIpfix, RefreshBelowOnePacketIsEveryPacket) {
    connect(",template-refresh-packets=0");
    export_one();
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
}

// ---- Progress report ----

// The counter belongs to the process, so the report's place is found rather than known.
TEST_F(ExportIpfix, EveryThousandthMessageIsReported) {
    connect();
    verbose_level = 4;
    std::vector<std::pair<int, std::string>> reports;
    for (int message = 0; message < 2000; ++message) {
        const std::string text = messages_of([&] { export_one(); });
        if (!text.empty())
            reports.emplace_back(message, text);
    }
    ASSERT_EQ(2u, reports.size());
    EXPECT_EQ(1000, reports[1].first - reports[0].first);
    for (const auto& [message, text] : reports) {
        ASSERT_EQ(49u, text.size()) << text;
        EXPECT_EQ("VERBOSE: 4:EXPORTER_SENT_PACKETS:         ", text.substr(0, 42));
        EXPECT_EQ(1u, std::stoul(text.substr(42)) % 1000);
    }
    verbose_level = 3;
    EXPECT_EQ("", messages_of([&] {
                  for (int message = 0; message < 1000; ++message)
                      export_one();
              }));
}

// ---- Start ----

TEST_F(ExportIpfix, StartIsReportedAtLevelZero) {
    verbose_level = 0;
    EXPECT_EQ("VERBOSE: 0:Templates OK\nVERBOSE: 0:Export ipfix OK\n",
              messages_of([&] { connect(); }));
}

TEST_F(ExportIpfix, TransportIsTakenByItsFirstLetters) {
    for (const char* name : {"udp", "UDP", "udplite", "UdP"}) {
        connect(",protocol=" + std::string(name));
        EXPECT_EQ(join({template_set, data_set(1)}), export_one()) << name;
    }
    const tcp_collector collector;
    for (const char* name : {"tcp", "TCP4"}) {
        init("host=127.0.0.1,port=" + std::to_string(collector.port()) + ",protocol=" + name +
             ",template_file=" + write_file(two_templates));
        EXPECT_TRUE(collector.accept()) << name;
    }
}

TEST_F(ExportIpfix, FaultsAtTheStartEndTheProgram) {
    const std::string good_file = ",template_file=" + write_file(two_templates);
    struct expectation {
        std::string params;
        const char* message;
    };
    for (const auto& [params, message] : std::vector<expectation>{
             {"host=", "^Cfgline problem: host\nParameters decoding problem\n$"},
             {"port=7", "^Hostname parameter is mandatory for netflow v9 export\n$"},
             {"host=h,protocol=dccp", "^Unsupported protocol: dccp\n$"},
             {"host=h,protocol=sct", "^Unsupported protocol: sct\n$"},
             {"host=h,template_file=/none", "^Template config error\n$"},
             {"host=h,template_file=/dev/null", "^No templates found\n$"},
             {"host=127.0.0.1,ip=5" + good_file, "^Can't connect to collector\n$"}})
        EXPECT_EXIT(init(params), testing::ExitedWithCode(255), message) << params;
}

// Two elements are misspelled.
TEST_F(ExportIpfix, BuiltinDefinitionsEndInABadField) {
    EXPECT_STREQ("/etc/kestrel/ipfix-template.txt", ipfix_protocol.default_file);
    template_protocol elsewhere = ipfix_protocol;
    elsewhere.default_file = "/none";
    template_exporter exporter = {.protocol = &elsewhere};
    EXPECT_EXIT(load_templates(exporter, table_), testing::ExitedWithCode(255),
                "^Default template config \\(/none\\) NOT found. Using minimalistic built in.\n"
                "Bad field: FLOW_START_MSEC_MILLISECINDS\nAllowed fields are:\n$");
    EXPECT_STREQ(
        "INPUT_SNMP=INPUT_INTERFACE,OUTPUT_SNMP=OUTPUT_INTERFACE,IP_PROTOCOL_VERSION=L3_PROTO,"
        "FLOW_START_MSEC_MILLISECINDS=FLOW_START_MSEC,FLOW_END_MSEC_MILLISECINDS=FLOW_END_MSEC,"
        "IN_BYTES=BYTES,IN_PKTS=PACKETS,OUT_BYTES=BYTES,OUT_PKTS=PACKETS,PROTOCOL=L4_PROTO,",
        ipfix_protocol.builtin_head);
}

TEST_F(ExportIpfix, KeyOfTheTemplateFileHasAnUnderscore) {
    EXPECT_STREQ("template_file", ipfix_protocol.file_key);
    connect(",template-file=/none");
    EXPECT_EQ(join({template_set, data_set(1)}), export_one());
}

}  // namespace
