#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/export_fixture.h"

namespace {

using namespace kestrel_test;

class ExportNf5 : public export_fixture {
  protected:
    void SetUp() override {
        export_fixture::SetUp();
        flow_.end += 999'999;  // less than a millisecond more
    }

    void connect(const std::string& more = "") {
        std::string params = collector_->params(more);
        exporter_ = keep(exporter_nf5_init(params.data(), table_));
    }

    uint32_t export_flow() { return exporter_nf5_export(exporter_, &flow_); }
    void export_flows(int count) {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(0u, export_flow());
    }
    uint32_t flush() { return exporter_nf5_flush(exporter_); }

    void* exporter_ = nullptr;
};

TEST_F(ExportNf5, DescribesItself) {
    EXPECT_STREQ("netflow-v5", exporter_nf5_desc()->name);
    EXPECT_STREQ(
        "Netflow v5 exporter exports data to network collector using netflow v5 protocol\n"
        "Note: This export use pure netflow record and don't use getters\n"
        "Parametres are (delimited by ','):\n"
        " host=hostname (mandatory)\n"
        " port=port     (default = 3001)\n"
        " ip=ip         Protocol to connect with collector(4,6,46 or 64 - default is 46).\n"
        " source_id=id  Exporter identification.",
        exporter_nf5_desc()->description);
    EXPECT_EQ(0, exporter_nf5_desc()->data_size);
}

TEST_F(ExportNf5, PacketIsExactToTheByte) {
    connect(",source_id=263");  // its low byte is 7
    wall_ns += 123'456'000;
    uptime_ns = 0x0102'0304 * ms + 999'999;
    EXPECT_EQ(0u, export_flow());
    EXPECT_EQ(72u, flush());
    // clang-format off
    const bytes expected = {
        0x00, 0x05, 0x00, 0x01,                           // version, count
        0x01, 0x02, 0x03, 0x04,                           // uptime
        0x5F, 0x5E, 0x10, 0x0A, 0x07, 0x5B, 0xCA, 0x00,   // 1,600,000,010 s, 123,456,000 ns
        0x00, 0x00, 0x00, 0x00,                           // sequence
        0x00, 0x07, 0x00, 0x00,                           // engine, sampling
        0xC0, 0x00, 0x02, 0x01, 0x0A, 0x0B, 0x0C, 0x0D,   // addresses
        0x00, 0x00, 0x00, 0x00,                           // next hop
        0x11, 0x12, 0x13, 0x14,                           // interfaces
        0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,   // packets, bytes
        0x00, 0x00, 0x05, 0xDC, 0x00, 0x00, 0x27, 0x0F,   // 1500 ms, 9999 ms
        0x21, 0x22, 0x23, 0x24,                           // ports
        0x00, 0x1B, 0x06, 0xB8,                           // pad, flags, protocol, tos
        0x00, 0x00, 0x00, 0x00,                           // AS numbers
        0x00, 0x00, 0x00, 0x00,                           // masks, pad
    };
    // clang-format on
    EXPECT_EQ(expected, receive());
}

TEST_F(ExportNf5, EmptyFlushSendsNothing) {
    connect();
    EXPECT_EQ(0u, flush());
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportNf5, HeaderHasTheTimeOfTheLastExport) {
    connect();
    export_flow();
    advance(2 * second);
    export_flow();
    advance(3 * second);
    flush();
    const bytes packet = receive();
    EXPECT_EQ(12'000u, big_endian(packet, 4, 4));
    EXPECT_EQ(1'600'000'012u, big_endian(packet, 8, 4));
    EXPECT_EQ(0u, big_endian(packet, 12, 4));
}

TEST_F(ExportNf5, ThirtyFirstFlowSendsThePacketOfTheFirstThirty) {
    connect();
    export_flows(30);
    EXPECT_TRUE(receive().empty());
    flow_.srcport = 31;
    export_flows(1);
    const bytes first = receive();
    ASSERT_EQ(24u + 30 * 48, first.size());
    EXPECT_EQ(30u, big_endian(first, 2, 2));
    EXPECT_EQ(0u, big_endian(first, 16, 4));
    EXPECT_EQ(0x2122u, big_endian(first, 24 + 29 * 48 + 32, 2));
    EXPECT_EQ(72u, flush());
    const bytes second_packet = receive();
    ASSERT_EQ(72u, second_packet.size());
    EXPECT_EQ(1u, big_endian(second_packet, 2, 2));
    EXPECT_EQ(30u, big_endian(second_packet, 16, 4));
    EXPECT_EQ(31u, big_endian(second_packet, 24 + 32, 2));
}

TEST_F(ExportNf5, SequenceCountsFlowsOfFailedSendsToo) {
    connect();
    const uint16_t port = collector_->port();
    collector_.reset();
    export_flow();
    EXPECT_EQ(72u, flush());  // its refusal fails the next send
    export_flows(31);         // the 31st sends the 30 before it, in vain
    collector_ = std::make_unique<udp_collector>(port);
    ASSERT_EQ(port, collector_->port());
    EXPECT_EQ(72u, flush());
    const bytes packet = receive();
    ASSERT_EQ(72u, packet.size());
    EXPECT_EQ(31u, big_endian(packet, 16, 4));
    EXPECT_TRUE(receive().empty());
}

TEST_F(ExportNf5, FailedFlushSaysSoAndEmptiesThePacket) {
    connect();
    collector_.reset();
    export_flow();
    flush();
    export_flow();
    EXPECT_EQ(0xFFFFFFFFu, flush());
    EXPECT_EQ(0u, flush());
}

TEST_F(ExportNf5, OtherThanIpv4IsNotExported) {
    connect();
    export_flow();
    flow_.l3protocol = 6;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    flow_.l3protocol = 0;
    EXPECT_EQ(0xFFFFFFFFu, export_flow());
    EXPECT_EQ(72u, flush());
    EXPECT_EQ(1u, big_endian(receive(), 2, 2));
    flow_.l3protocol = 4;
    export_flow();
    flush();
    EXPECT_EQ(1u, big_endian(receive(), 16, 4));
}

TEST_F(ExportNf5, TransportFieldsFollowTheProtocol) {
    struct expectation {
        uint8_t protocol;
        uint32_t srcport, dstport, flags;
    };
    connect();
    for (const auto& [protocol, srcport, dstport, flags] :
         {expectation{6, 0x2122, 0x2324, 0x1B}, expectation{17, 0x2122, 0x2324, 0},
          expectation{132, 0x2122, 0x2324, 0}, expectation{1, 0, 0x2526, 0},
          expectation{58, 0, 0, 0}, expectation{47, 0, 0, 0}}) {
        flow_.l4protocol = protocol;
        export_flow();
        flush();
        const bytes packet = receive();
        EXPECT_EQ(srcport, big_endian(packet, 24 + 32, 2)) << int{protocol};
        EXPECT_EQ(dstport, big_endian(packet, 24 + 34, 2)) << int{protocol};
        EXPECT_EQ(flags, big_endian(packet, 24 + 37, 1)) << int{protocol};
        EXPECT_EQ(protocol, big_endian(packet, 24 + 38, 1));
    }
}

TEST_F(ExportNf5, SamplingIntervalIsThatOfTheLastFlow) {
    connect();
    for (const auto& [rate, interval] :
         {std::pair<uint16_t, uint32_t>{100, 16'484}, {1, 0x4001}, {0x3FFF, 0x7FFF}, {0, 0}}) {
        flow_.sampling = 77;
        export_flow();
        flow_.sampling = rate;
        export_flow();
        flush();
        EXPECT_EQ(interval, big_endian(receive(), 22, 2)) << rate;
    }
}

TEST_F(ExportNf5, SamplingRatesThatDoNotFitAreTheHighestThatDoes) {
    connect();
    for (const uint16_t rate : {uint16_t{0x4000}, uint16_t{0xFFFF}}) {
        flow_.sampling = rate;
        export_flow();
        flush();
        EXPECT_EQ(0x7FFFu, big_endian(receive(), 22, 2)) << rate;
    }
}

TEST_F(ExportNf5, FlowsOlderThanTheStartUpWrap) {
    connect();
    flow_.start = startup - 2 * ms;
    export_flow();
    flush();
    // (2^64 - 2,000,000) / 1,000,000 = 0x10C6F7A0B5EB, of which 32 bits are kept
    EXPECT_EQ(0xF7A0B5EBu, big_endian(receive(), 24 + 24, 4));
}

// ---- AS numbers ----

TEST_F(ExportNf5, WithoutAsGettersTheNumbersAreZero) {
    connect();
    export_flow();
    flush();
    EXPECT_EQ(0u, big_endian(receive(), 24 + 40, 4));
}

struct as_call {
    void* context;
    const flow_record* record;
    uint32_t length, network_order;
    std::string name;
};
std::vector<as_call> as_calls;

void get_as(void* context, const flow_record* record, void* destination, uint32_t length,
            uint32_t network_order, const getter* self) {
    as_calls.push_back({context, record, length, network_order, self->name});
    record_universal_get(destination, context, 0, 2, static_cast<int32_t>(length), network_order);
}

TEST_F(ExportNf5, AsNumbersComeFromTheirGetters) {
    uint16_t source = 0x3132, destination = 0x3334;
    getter_add(&table_, "SRC_AS", 2, &source, record_valid_ok, record_length_2, get_as);
    getter_add(&table_, "DST_AS", 2, &destination, record_valid_ok, record_length_2, get_as);
    as_calls.clear();
    connect();
    export_flow();
    flush();
    const bytes packet = receive();
    EXPECT_EQ(0x3132u, big_endian(packet, 24 + 40, 2));
    EXPECT_EQ(0x3334u, big_endian(packet, 24 + 42, 2));
    ASSERT_EQ(2u, as_calls.size());
    EXPECT_EQ(&source, as_calls[0].context);
    EXPECT_EQ(&flow_, as_calls[0].record);
    EXPECT_EQ(2u, as_calls[0].length);
    EXPECT_EQ(1u, as_calls[0].network_order);
    EXPECT_EQ("SRC_AS", as_calls[0].name);
    EXPECT_EQ("DST_AS", as_calls[1].name);
}

TEST_F(ExportNf5, OneAsGetterMayBeMissing) {
    uint16_t destination = 0x3334;
    getter_add(&table_, "DST_AS", 2, &destination, record_valid_ok, record_length_2, get_as);
    connect();
    export_flow();
    flush();
    EXPECT_EQ(0x00003334u, big_endian(receive(), 24 + 40, 4));
}

// ---- Clock faults ----

class ExportNf5Clock : public ExportNf5 {
  protected:
    std::string messages_of_export() {
        testing::internal::CaptureStderr();
        export_flow();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(ExportNf5Clock, UptimeThatFallsBackSendsThePacketBefore) {
    connect();
    export_flows(2);
    uptime_ns -= 1 * ms;
    EXPECT_EQ("Machine time mangled :-( (1)\n", messages_of_export());
    const bytes before = receive();
    EXPECT_EQ(2u, big_endian(before, 2, 2));
    EXPECT_EQ(10'000u, big_endian(before, 4, 4));
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(72u, flush());
    EXPECT_EQ(9'999u, big_endian(receive(), 4, 4));
}

TEST_F(ExportNf5Clock, WallClockThatFallsBackIsNoFault) {
    connect();
    export_flow();
    flow_.end = startup;
    wall_ns -= 5 * second;
    EXPECT_EQ("", messages_of_export());
    EXPECT_EQ(24u + 2 * 48, flush());
}

// The header's time is compared in 32 bits: 4 s + 500,000,000 ns wrap to 205,032,704 ns.
TEST_F(ExportNf5Clock, WallClockIsComparedWithAWrappedNumber) {
    wall_ns = 4 * second + 500 * ms;
    flow_.end = 0;
    connect();
    export_flow();
    wall_ns = 205'032'704;
    EXPECT_EQ("", messages_of_export());
    EXPECT_TRUE(receive().empty());
    wall_ns = 205'032'703;  // below the header's 205,032,704, which now has no seconds to wrap
    testing::internal::CaptureStderr();
    export_flow();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(2u, big_endian(receive(), 2, 2));
}

TEST_F(ExportNf5Clock, FlowThatEndsInTheFutureLeavesAlone) {
    connect();
    export_flows(2);
    flow_.end = wall_ns + 1;
    EXPECT_EQ("Machine time mangled :-( (1)\n", messages_of_export());
    EXPECT_EQ(2u, big_endian(receive(), 2, 2));
    const bytes alone = receive();
    EXPECT_EQ(1u, big_endian(alone, 2, 2));
    EXPECT_EQ(2u, big_endian(alone, 16, 4));
    EXPECT_EQ(0u, flush());
}

TEST_F(ExportNf5Clock, FlowThatEndsNowIsNoFault) {
    connect();
    export_flow();
    flow_.end = wall_ns;
    EXPECT_EQ("", messages_of_export());
    EXPECT_EQ(24u + 2 * 48, flush());
}

TEST_F(ExportNf5Clock, FutureFlowIsNoFaultInAnEmptyPacket) {
    connect();
    flow_.end = wall_ns + 1;
    EXPECT_EQ("", messages_of_export());
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(72u, flush());
}

TEST_F(ExportNf5Clock, FutureFlowIsNoFaultBehindAFullPacket) {
    connect();
    export_flows(30);
    flow_.end = wall_ns + 1;
    EXPECT_EQ("", messages_of_export());
    EXPECT_EQ(30u, big_endian(receive(), 2, 2));
    EXPECT_TRUE(receive().empty());
    EXPECT_EQ(72u, flush());
}

TEST_F(ExportNf5Clock, FaultsAreReportedEveryFiveSeconds) {
    connect();
    const uint64_t past = flow_.end;
    const auto fault = [&] {
        flow_.end = past;
        export_flow();
        flow_.end = wall_ns + 1;
        return messages_of_export();
    };
    EXPECT_EQ("Machine time mangled :-( (1)\n", fault());
    EXPECT_EQ("", fault());
    advance(5 * second);  // not yet more than five
    EXPECT_EQ("", fault());
    advance(1'000);
    EXPECT_EQ("Machine time mangled :-( (3)\n", fault());
    advance(5 * second + 1'000);
    EXPECT_EQ("Machine time mangled :-( (1)\n", fault());
}

TEST_F(ExportNf5Clock, BothFaultsAtOnceCountAsOne) {
    connect();
    export_flow();
    uptime_ns -= 1 * ms;
    flow_.end = wall_ns + 1;
    EXPECT_EQ("Machine time mangled :-( (1)\n", messages_of_export());
    EXPECT_EQ(1u, big_endian(receive(), 2, 2));
    EXPECT_EQ(1u, big_endian(receive(), 2, 2));
    EXPECT_EQ(0u, flush());
}

// ---- Start ----

TEST_F(ExportNf5, StartIsReportedAtLevelZero) {
    verbose_level = 0;
    testing::internal::CaptureStderr();
    connect();
    EXPECT_EQ("VERBOSE: 0:Export v5 OK\n", testing::internal::GetCapturedStderr());
    verbose_level = -1;
}

TEST_F(ExportNf5, FaultsAtTheStartEndTheProgram) {
    struct expectation {
        const char* params;
        const char* message;
    };
    for (const auto& [params, message] :
         {expectation{"host=", "^Cfgline problem: host\nParameters decoding problem\n$"},
          expectation{"port=7", "^Hostname parameter is mandatory for netflow v5 export\n$"},
          expectation{"host=127.0.0.1,ip=5", "^Can't connect to collector\n$"}}) {
        std::string text = params;
        EXPECT_EXIT(exporter_nf5_init(text.data(), nullptr), testing::ExitedWithCode(255), message);
    }
    EXPECT_EXIT(exporter_nf5_init(nullptr, nullptr), testing::ExitedWithCode(255),
                "^Hostname parameter is mandatory for netflow v5 export\n$");
}

}  // namespace
