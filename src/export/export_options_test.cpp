// Options records of both template exporters: every byte of what a collector gets, and when.
#include <string>
#include <vector>

#include "base/counters.h"
#include "base/observation.h"
#include "export/template_exporter.h"
#include "tests/support/export_fixture.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

// clang-format off
// The set of the one template below: 256, sourceTransportPort alone.
const bytes ipfix_templates = {0, 2, 0, 12,   1, 0, 0, 1,   0, 7, 0, 2};
const bytes nf9_templates = {0, 0, 0, 12,   1, 0, 0, 1,   0, 7, 0, 2};
const bytes one_flow = {1, 0, 0, 8,   0x21, 0x22,   0, 0};
const bytes domain = {1, 2, 3, 4};
const bytes ipfix_options_templates = {
    0, 3, 0, 24,   2, 0, 0, 3, 0, 1,   0, 149, 0, 4,   0, 34, 0, 4,   0, 35, 0, 1,   0, 0,
    0, 3, 0, 24,   2, 2, 0, 3, 0, 1,   0, 10, 0, 4,   0, 82, 255, 255,   0, 83, 255, 255,   0, 0,
    0, 3, 0, 28,   2, 3, 0, 4, 0, 1,   0, 149, 0, 4,   0, 40, 0, 8,   0, 41, 0, 8,   0, 42, 0, 8,
    0, 0,
    0, 3, 0, 24,   2, 4, 0, 3, 0, 1,   0, 149, 0, 4,   0, 163, 0, 8,   0, 164, 0, 8,   0, 0,
    0, 3, 0, 28,   2, 5, 0, 4, 0, 1,   0, 144, 0, 4,   0, 166, 0, 8,   0, 167, 0, 8,   0, 168, 0, 8,
    0, 0};
const bytes nf9_options_templates = {
    0, 1, 0, 24,   2, 0, 0, 4, 0, 8,   0, 1, 0, 4,   0, 34, 0, 4,   0, 35, 0, 1,   0, 0,
    0, 1, 0, 28,   2, 2, 0, 4, 0, 12,   0, 1, 0, 4,   0, 10, 0, 4,   0, 82, 0, 32,   0, 83, 0, 64,
    0, 0,
    0, 1, 0, 28,   2, 3, 0, 4, 0, 12,   0, 1, 0, 4,   0, 40, 0, 8,   0, 41, 0, 8,   0, 42, 0, 8,
    0, 0,
    0, 1, 0, 24,   2, 4, 0, 4, 0, 8,   0, 1, 0, 4,   0, 163, 0, 8,   0, 164, 0, 8,   0, 0,
    0, 1, 0, 28,   2, 5, 0, 4, 0, 12,   0, 1, 0, 4,   0, 166, 0, 8,   0, 167, 0, 8,   0, 168, 0, 8,
    0, 0};
// clang-format on

bytes number(uint64_t value, size_t width) {
    bytes text(width);
    for (; width > 0; value >>= 8)
        text[--width] = static_cast<uint8_t>(value);
    return text;
}

bytes text(const std::string& value, size_t width) {
    bytes padded(value.begin(), value.end());
    padded.resize(width);
    return padded;
}

bytes sampling_record(uint32_t rate, uint8_t algorithm) {
    return join({{2, 0, 0, 16}, domain, number(rate, 4), {algorithm, 0, 0, 0}});
}

bytes statistics_records(uint64_t octets, uint64_t messages, uint64_t flows, const bytes& process) {
    return join({{2, 3, 0, 32},
                 domain,
                 number(octets, 8),
                 number(messages, 8),
                 number(flows, 8),
                 {2, 4, 0, 24},
                 domain,
                 number(0, 8),
                 number(0, 8),
                 {2, 5, 0, 32},
                 process,
                 number(0, 8),
                 number(0, 8),
                 number(0, 8)});
}

struct protocol_under_test {
    export_init_function* init;
    export_export_function* export_record;
    export_flush_function* flush;
    export_tend_function* tend;
    const char* file_key;
    size_t header;
};
const protocol_under_test ipfix = {exporter_ipfix_init, exporter_ipfix_export, exporter_ipfix_flush,
                                   exporter_ipfix_tend, "template_file",       16};
const protocol_under_test netflow_v9 = {exporter_nf9_init, exporter_nf9_export, exporter_nf9_flush,
                                        exporter_nf9_tend, "template-file",     20};

using interface_list = std::vector<observed_interface>;

class ExportOptions : public export_fixture {
  protected:
    void SetUp() override {
        export_fixture::SetUp();
        observation_set_sampling({});
        observe({});
        static int number = 0;
        label_ = "export=\"options-" + std::to_string(number++) + "\"";
    }

    static void observe(const interface_list& interfaces) {
        interface_update update;
        for (const observed_interface& each : interfaces)
            update.tell(each.number, each.name.c_str(), each.description.c_str());
    }

    void init(const protocol_under_test& protocol, const std::string& more,
              const export_place& place = {}) {
        protocol_ = &protocol;
        const metrics_label_scope scope(label_);
        const export_place_scope here(place);
        std::string params = collector_->params(
            "," + std::string(protocol.file_key) + "=" +
            write_file("BEGIN-TEMPLATE\nL4_SRC_PORT=L4_PORT_SRC\n") + ",source_id=16909060" + more);
        exporter_ = keep(protocol.init(params.data(), table_));
    }

    int32_t tend() { return protocol_->tend(exporter_); }
    void export_flows(int count) {
        for (int n = 0; n < count; ++n)
            EXPECT_EQ(protocol_->export_record(exporter_, &flow_), 0U);
    }
    void flush() { (void)protocol_->flush(exporter_); }

    // Lets the record loop come along every 10 ms; returns the messages in the meantime.
    std::vector<bytes> tend_for(uint64_t duration_ms) {
        std::vector<bytes> messages;
        for (uint64_t n = 0; n < duration_ms; n += 10) {
            (void)tend();
            for (bytes message = receive(); !message.empty(); message = receive())
                messages.push_back(message);
            advance(10 * ms);
        }
        return messages;
    }
    // Sets of the only message that has come.
    bytes sets_of_one() {
        const bytes message = receive();
        EXPECT_FALSE(message.empty());
        EXPECT_TRUE(receive().empty());
        return message.empty() ? message
                               : bytes(message.begin() + static_cast<ptrdiff_t>(protocol_->header),
                                       message.end());
    }
    static uint64_t sequence(const bytes& message) {
        return big_endian(message, message.at(1) == 10 ? 8 : 12, 4);
    }
    uint64_t sum(const std::string& name) const {
        return metrics_sum("kestrelexp_export_" + name, label_);
    }

    const protocol_under_test* protocol_ = nullptr;
    void* exporter_ = nullptr;
    std::string label_;
};

TEST_F(ExportOptions, WithoutTheParameterThereAreNone) {
    for (const protocol_under_test* protocol : {&ipfix, &netflow_v9}) {
        init(*protocol, "");
        EXPECT_EQ(tend(), EXPORT_TEND_NEVER);
        export_flows(1);
        EXPECT_EQ(tend(), EXPORT_TEND_NEVER);
        EXPECT_TRUE(receive().empty());
        flush();
        const bytes message = receive();
        EXPECT_EQ(sequence(message), 0U);
        EXPECT_EQ(message.size(), protocol->header + 12 + 8);
    }
}

// ---- Bytes ----

TEST_F(ExportOptions, MessagesOfIpfixAreExactToTheByte) {
    observation_set_sampling({.rate = 100});
    observe({{2, "eth0", "uplink"}, {3, "eth1", ""}});
    init(ipfix, ",options-refresh-time=60", {.position = 3, .sampling_rate = 10});
    (void)tend();
    EXPECT_EQ(receive(),
              join({{0, 10, 0, 28, 0x5F, 0x5E, 0x10, 0x0A, 0, 0, 0, 0}, domain, ipfix_templates}));
    EXPECT_EQ(receive(), join({{0, 10, 0x01, 0x18, 0x5F, 0x5E, 0x10, 0x0A, 0, 0, 0, 0},
                               domain,
                               ipfix_options_templates,
                               sampling_record(1000, 1),
                               statistics_records(28, 1, 0, {0, 0, 0, 3}),
                               {2, 2, 0, 32},
                               {0, 0, 0, 2, 4, 'e', 't', 'h', '0', 6, 'u', 'p', 'l', 'i', 'n', 'k'},
                               {0, 0, 0, 3, 4, 'e', 't', 'h', '1', 0, 0, 0}}));
    EXPECT_TRUE(receive().empty());
    flow_.sampling = 1000;
    export_flows(1);
    flush();
    // Six options records were sent before it.
    EXPECT_EQ(receive(),
              join({{0, 10, 0, 24, 0x5F, 0x5E, 0x10, 0x0A, 0, 0, 0, 6}, domain, one_flow}));
}

TEST_F(ExportOptions, PacketsOfNetflowV9AreExactToTheByte) {
    observation_set_sampling({.rate = 100});
    observe({{2, "eth0", "uplink"}});
    init(netflow_v9, ",options-refresh-time=60", {.position = 3, .sampling_rate = 10});
    (void)tend();
    const bytes times = {0, 0, 0x27, 0x10, 0x5F, 0x5E, 0x10, 0x0A};  // 10 s since the start
    EXPECT_EQ(receive(), join({{0, 9, 0, 1}, times, {0, 0, 0, 0}, domain, nf9_templates}));
    EXPECT_EQ(receive(), join({{0, 9, 0, 10},
                               times,
                               {0, 0, 0, 1},
                               domain,
                               nf9_options_templates,
                               sampling_record(1000, 1),
                               statistics_records(32, 1, 0, domain),
                               {2, 2, 0, 108},
                               domain,
                               {0, 0, 0, 2},
                               text("eth0", 32),
                               text("uplink", 64)}));
    EXPECT_TRUE(receive().empty());
    flow_.sampling = 1000;
    export_flows(1);
    flush();
    EXPECT_EQ(receive(), join({{0, 9, 0, 1}, times, {0, 0, 0, 2}, domain, one_flow}));
}

TEST_F(ExportOptions, TheRateOneIsToldAsWell) {
    init(ipfix, ",options-refresh-time=60");
    (void)tend();
    (void)receive();
    EXPECT_EQ(sets_of_one(), join({ipfix_options_templates, sampling_record(1, 1),
                                   statistics_records(28, 1, 0, {0, 0, 0, 0})}));
}

TEST_F(ExportOptions, SamplingAtRandomSaysSo) {
    for (const auto& [rate, algorithm] : {std::pair{50U, uint8_t{2}}, {1U, uint8_t{1}}}) {
        observation_set_sampling({.rate = rate, .is_random = true});
        init(netflow_v9, ",options-refresh-time=60");
        (void)tend();
        (void)receive();
        const bytes sets = sets_of_one();
        EXPECT_EQ(bytes(sets.begin() + 132, sets.begin() + 148), sampling_record(rate, algorithm));
    }
}

TEST_F(ExportOptions, PsampTellsOnePacketAndTheGapAfterIt) {
    observation_set_sampling({.rate = 0x01020304});
    init(ipfix, ",options-refresh-time=60,sampling-elements=psamp");
    (void)tend();
    (void)receive();
    const bytes sets = sets_of_one();
    EXPECT_EQ(bytes(sets.begin(), sets.begin() + 24),
              (bytes{0, 3, 0, 24, 2, 1, 0, 3, 0, 1, 0, 149, 0, 4, 1, 49, 0, 4, 1, 50, 0, 4, 0, 0}));
    EXPECT_EQ(bytes(sets.begin() + 128, sets.begin() + 144),
              join({{2, 1, 0, 16}, domain, {0, 0, 0, 1, 1, 2, 3, 3}}));
}

TEST_F(ExportOptions, ARateBeyondSixteenBitsIsToldWhole) {
    observation_set_sampling({.rate = 100'000});
    init(ipfix, ",options-refresh-time=60", {.sampling_rate = 1000});
    flow_.sampling = static_cast<uint16_t>(34'464 * 1000);  // what the record shows of it
    export_flows(1);
    (void)tend();
    (void)receive();
    const bytes sets = sets_of_one();
    EXPECT_EQ(bytes(sets.begin() + 128, sets.begin() + 144), sampling_record(100'000'000, 1));
}

// ---- Times ----

TEST_F(ExportOptions, ARoundComesInEveryPeriodAndCountsWhatWasSent) {
    init(ipfix, ",options-refresh-time=5");
    EXPECT_EQ(tend_for(4'990).size(), 2U);
    export_flows(3);
    flush();
    EXPECT_EQ(sequence(receive()), 4U);  // 16 + 4 + 3 * 2 + 2 bytes
    EXPECT_EQ(tend_for(10).size(), 0U);
    const std::vector<bytes> round = tend_for(10);
    ASSERT_EQ(round.size(), 1U);
    EXPECT_EQ(sequence(round[0]), 7U);
    EXPECT_EQ(bytes(round[0].begin() + 16, round[0].end()),
              join({ipfix_options_templates, sampling_record(1, 1),
                    statistics_records(28 + 248 + 28, 3, 3, {0, 0, 0, 0})}));
    EXPECT_EQ(sum("messages_total"), 4U);
    EXPECT_EQ(sum("bytes_total"), 28U + 248 + 28 + 248);
    EXPECT_EQ(sum("records_total"), 3U);
    EXPECT_EQ(tend_for(5'100).size(), 1U);
}

TEST_F(ExportOptions, TheNextCallIsAskedForWhenAMessageMayBeDue) {
    init(ipfix, ",options-refresh-time=60");
    EXPECT_EQ(tend(), 50);
    advance(59'980 * ms);
    EXPECT_EQ(tend(), 20);
}

TEST_F(ExportOptions, RecordsThatWaitGoFirst) {
    for (const protocol_under_test* protocol : {&ipfix, &netflow_v9}) {
        init(*protocol, ",options-refresh-time=60");
        export_flows(2);
        (void)tend();
        const bytes first = receive();
        EXPECT_EQ(first.size(), protocol->header + 12 + 8);
        EXPECT_EQ(sequence(first), 0U);
        EXPECT_EQ(sequence(receive()), protocol == &ipfix ? 2U : 1U);
        export_flows(1);
        flush();
        EXPECT_EQ(sequence(receive()), protocol == &ipfix ? 2U + 4 : 2U);
    }
}

TEST_F(ExportOptions, HundredsOfInterfacesArePaced) {
    interface_list all;
    for (uint32_t n = 1; n <= 300; ++n)
        all.push_back({n, "interface" + std::to_string(n), "towards somewhere"});
    observe(all);
    init(ipfix, ",options-refresh-time=60");
    std::vector<bytes> round;
    for (int call = 0; call < 100; ++call) {
        const bool is_first = call == 0;
        EXPECT_LE(tend(), 50);
        if (is_first) {
            EXPECT_EQ(receive().size(), 28U);
        }
        const bytes message = receive();
        if (message.empty())
            break;
        EXPECT_TRUE(receive().empty());
        round.push_back(message);
        advance(9 * ms);
        (void)tend();
        EXPECT_TRUE(receive().empty());
        advance(1 * ms);
    }
    // 300 records of 4 + 1 + 10 to 12 + 1 + 17 bytes in messages of up to 1450.
    ASSERT_EQ(round.size(), 8U);
    uint64_t sequence_now = 0;
    uint32_t found = 0;
    for (const bytes& message : round) {
        EXPECT_LE(message.size(), 16U + 1450);
        EXPECT_EQ(big_endian(message, 2, 2), message.size());
        EXPECT_EQ(sequence(message), sequence_now);
        size_t at = 16 + (&message == &round[0] ? 128U + 16 + 32 + 24 + 32 : 0U);
        EXPECT_EQ(big_endian(message, at, 2), 514U);
        EXPECT_EQ(at + big_endian(message, at + 2, 2), message.size());
        sequence_now += &message == &round[0] ? 4 : 0;
        for (at += 4; at + 4 <= message.size();) {
            ++sequence_now;
            EXPECT_EQ(big_endian(message, at, 4), ++found);
            at += 4;
            at += 1 + message.at(at);
            at += 1 + message.at(at);
        }
    }
    EXPECT_EQ(found, 300U);
    EXPECT_TRUE(tend_for(1'000).empty());
}

// ---- Changes ----

TEST_F(ExportOptions, AnInterfaceThatChangesIsToldWithinASecond) {
    observe({{2, "eth0", ""}});
    init(ipfix, ",options-refresh-time=3600");
    EXPECT_EQ(tend_for(3'000).size(), 2U);
    observe({{7, "eth0", ""}});
    const std::vector<bytes> round = tend_for(1'000);
    ASSERT_EQ(round.size(), 1U);
    EXPECT_EQ(bytes(round[0].end() - 16, round[0].end()),
              (bytes{2, 2, 0, 16, 0, 0, 0, 7, 4, 'e', 't', 'h', '0', 0, 0, 0}));
    EXPECT_TRUE(tend_for(60'000).empty());
}

// An export before this one has multiplied and divided in 16 bits: 100,000 less 65,536, over 100.
TEST_F(ExportOptions, WhereFramesAreParsedRecordsHaveNoRateOfTheirOwn) {
    observation_set_sampling({.rate = 1000});
    init(ipfix, ",options-refresh-time=3600");
    EXPECT_EQ(tend_for(2'000).size(), 2U);
    flow_.sampling = 344;
    export_flows(2);
    flush();
    while (!receive().empty()) {
    }
    EXPECT_TRUE(tend_for(2'000).empty());
}

TEST_F(ExportOptions, RecordsThatShowAnotherRateChangeIt) {
    observation_set_sampling({.is_in_records = true});
    init(ipfix, ",options-refresh-time=3600");
    EXPECT_EQ(tend_for(2'000).size(), 2U);
    flow_.sampling = 0;
    export_flows(1);
    flush();
    (void)receive();
    EXPECT_TRUE(tend_for(2'000).empty());
    for (const auto& [shown, rate] : {std::pair{uint16_t{64}, 64U}, {uint16_t{0}, 1U}}) {
        flow_.sampling = shown;
        export_flows(2);
        flush();
        while (!receive().empty()) {
        }
        const std::vector<bytes> round = tend_for(2'000);
        ASSERT_EQ(round.size(), 1U);
        EXPECT_EQ(bytes(round[0].begin() + 16 + 128, round[0].begin() + 16 + 144),
                  sampling_record(rate, 1));
    }
}

// ---- Losses ----

TEST_F(ExportOptions, AMessageThatCannotBeSentIsCountedAndSeen) {
    init(netflow_v9, ",options-refresh-time=1");
    EXPECT_EQ(tend_for(500).size(), 2U);
    collector_.reset();
    // The first one finds out that nobody listens, the second one is told.
    for (int n = 0; n < 2; ++n) {
        advance(1000 * ms);
        (void)tend();
    }
    EXPECT_EQ(sum("failed_messages_total"), 1U);
    EXPECT_EQ(sum("messages_total"), 3U);
    EXPECT_EQ(sum("lost_records_total"), 0U);
}

TEST_F(ExportOptions, AfterAConnectionOfIpfixBrokeTemplatesAndOptionsComeAgain) {
    init(ipfix, ",options-refresh-time=3600");
    EXPECT_EQ(tend_for(2'000).size(), 2U);
    const uint16_t port = collector_->port();
    collector_.reset();
    export_flows(1);
    flush();  // nobody gets it
    collector_ = std::make_unique<udp_collector>(port);
    ASSERT_EQ(collector_->port(), port);
    export_flows(1);
    flush();  // the answer to the one before
    EXPECT_EQ(sum("reconnects_total"), 1U);
    const bytes templates = receive();
    EXPECT_EQ(bytes(templates.begin() + 16, templates.end()), ipfix_templates);
    EXPECT_EQ(sequence(templates), 4U + 2);
    const bytes options = receive();
    EXPECT_EQ(bytes(options.begin() + 16, options.begin() + 16 + 128), ipfix_options_templates);
    EXPECT_EQ(sequence(options), 4U + 2);
    export_flows(1);
    flush();
    EXPECT_EQ(sequence(receive()), 4U + 2 + 4);
}

// ---- Start ----

TEST_F(ExportOptions, SettingsThatMakeNoSenseEndTheStart) {
    struct expectation {
        const char* params;
        const char* message;
    };
    for (const auto& [params, message] : std::vector<expectation>{
             {",options-refresh-time=0", "^options-refresh-time is from 1 to 86400\n$"},
             {",options-refresh-time=86401", "^options-refresh-time is from 1 to 86400\n$"},
             {",options-refresh-time=-1", "^options-refresh-time is from 1 to 86400\n$"},
             {",sampling-elements=psamp", "^sampling-elements goes with options-refresh-time\n$"},
             {",options-refresh-time=60,sampling-elements=other",
              "^Unknown sampling-elements: other \\(there is psamp\\)\n$"}}) {
        EXPECT_EXIT(init(ipfix, params), testing::ExitedWithCode(255), message) << params;
        EXPECT_EXIT(init(netflow_v9, params), testing::ExitedWithCode(255), message) << params;
    }
}

}  // namespace
