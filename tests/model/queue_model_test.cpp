#include "tests/model/queue_model.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <random>
#include <string>

#include "flow/ageing.h"
#include "flow/flow_cache.h"
#include "kestrelexp/service.h"
#include "kestrelexp/storage.h"
#include "tests/support/lifelong.h"

namespace {

using namespace kestrel_model;
using kestrel_test::keep;

constexpr uint64_t ms = 1'000'000;
constexpr uint64_t second = 1'000 * ms;

// ---- A process plugin that leaves traces of every call ----

struct trace_plugin {
    uint16_t data_offset;
    std::vector<uint64_t> calls;

    uint32_t load(const flow_record* record, unsigned word) const {
        uint32_t value;
        std::memcpy(&value, reinterpret_cast<const uint8_t*>(record) + data_offset + 4 * word, 4);
        return value;
    }
    void store(flow_record* record, unsigned word, uint32_t value) const {
        std::memcpy(reinterpret_cast<uint8_t*>(record) + data_offset + 4 * word, &value, 4);
    }
    void note(char call, const flow_record* record, uint64_t more) {
        calls.insert(calls.end(), {static_cast<uint64_t>(call), record->start, record->end,
                                   record->packets, record->bytes, record->tcpflags, more});
    }
};

constexpr size_t trace_data_size = 12;
constexpr uint16_t port_exported_at_start = 40'000;

void trace_create(void* instance, flow_record* packet) {
    auto* trace = static_cast<trace_plugin*>(instance);
    trace->note('c', packet, packet->srcport);
    trace->store(packet, 0, 1);
    trace->store(packet, 1, packet->bytes);
    if (packet->srcport % 7 == 0)
        packet->tcpflags |= 0x80;  // what a plugin changes here is part of the flow
    if (packet->dstport == port_exported_at_start)
        packet->export_flag = 1;
}

void trace_update(void* instance, flow_record* flow, flow_record* packet) {
    auto* trace = static_cast<trace_plugin*>(instance);
    trace->note('u', flow, packet->bytes);
    const uint32_t count = trace->load(flow, 0) + 1;
    trace->store(flow, 0, count);
    packet->outputsnmp = static_cast<uint16_t>(packet->outputsnmp + 1);
    if (count == 6 && flow->srcport % 2 == 0)
        flow->export_flag = 7;
}

void trace_release(void* instance, flow_record* flow, int32_t reason) {
    auto* trace = static_cast<trace_plugin*>(instance);
    trace->note('r', flow, static_cast<uint64_t>(reason));
    trace->store(flow, 2, trace->load(flow, 2) * 4 + static_cast<uint32_t>(reason));
}

process_plugin plugin_of(trace_plugin& trace) {
    process_plugin plugin{};
    plugin.create = trace_create;
    plugin.update = trace_update;
    plugin.release = trace_release;
    plugin.data_offset = trace.data_offset;
    plugin.instance = &trace;
    return plugin;
}

// ---- Configurations ----

struct configuration {
    const char* name;
    int exponent;
    uint64_t active_ns;
    uint64_t inactive_ns;
    size_t other_data;  // bytes of data space in front of the plugins' areas
    unsigned plugins;
    unsigned keys_per_bucket;
};

void PrintTo(const configuration& c, std::ostream* out) {
    *out << c.name;
}

constexpr configuration configurations[] = {
    {"Smallest", 5, 300 * ms, 100 * ms, 0, 0, 12},
    {"SmallestWithPlugins", 5, 300 * ms, 100 * ms, 0, 2, 12},
    {"SixBits", 6, 180 * second, 5 * second, 10, 0, 10},
    {"SixBitsWithPlugin", 6, 2 * second, 50 * ms, 10, 1, 9},
    {"SevenBits", 7, 1 * second, 40 * ms, 44, 0, 9},
    {"SevenBitsWithPlugins", 7, 180 * second, 5 * second, 12, 3, 9},
    {"EightBits", 8, 500 * ms, 200 * ms, 66, 0, 9},
    {"EightBitsWithPlugins", 8, 500 * ms, 200 * ms, 3, 2, 10},
    {"NoTimeAtAll", 5, 0, 0, 0, 0, 12},
    {"EndlessTime", 5, UINT64_MAX, UINT64_MAX, 0, 1, 12},
};

// ---- Random operations on both ----

class two_queues {
  public:
    explicit two_queues(const configuration& c)
        : config_(c),
          random_(c.keys_per_bucket * 1'000u + static_cast<unsigned>(c.exponent)),
          data_size_(c.other_data + c.plugins * trace_data_size),
          traces_(2 * c.plugins),
          real_plugins_(make_plugins(0)),
          model_({c.exponent, c.active_ns, c.inactive_ns, data_size_, make_plugins(c.plugins)}),
          storage_(keep(temporal_storage_init(
              4096, static_cast<uint32_t>(FLOW_RECORD_BASE_SIZE + data_size_), nullptr, "test"))),
          real_(keep(kestrel::queue_create(c.exponent, c.active_ns, c.inactive_ns, storage_,
                                           nullptr, data_size_, static_cast<int32_t>(c.plugins),
                                           real_plugins_.data()))) {
        make_keys();
        set_now();
    }

    void step() {
        const uint32_t choice = below(1000);
        time_goes_on();
        if (choice < 950)
            packet();
        else if (choice < 970)
            restart_scan();
        else if (choice < 980)
            queue_try_to_remove(real_), model_.try_to_remove();
        else if (choice < 990)
            remove_any();
        else if (choice < 995)
            output_any();
        else if (choice < 998)
            take_report();
        else
            queue_flush(real_), model_.flush();
    }

    void expect_same_output() {
        for (const model_record& expected : model_.take_output()) {
            const void* actual = temporal_storage_get(storage_, 0);
            ASSERT_NE(nullptr, actual) << "a record is missing";
            ASSERT_EQ(0, std::memcmp(expected.bytes(), actual, record_size()))
                << "expected " << describe(expected.fields()) << "\ngot      "
                << describe(*static_cast<const flow_record*>(actual));
        }
        ASSERT_EQ(nullptr, temporal_storage_get(storage_, 0)) << "a record too many";
        for (unsigned i = 0; i < config_.plugins; ++i) {
            ASSERT_EQ(traces_[config_.plugins + i].calls, traces_[i].calls) << "plugin " << i;
            traces_[i].calls.clear();
            traces_[config_.plugins + i].calls.clear();
        }
    }

    void expect_same_counters() {
        ASSERT_EQ(model_.statistics.packets, real_->tally.records);
        ASSERT_EQ(model_.statistics.bytes, real_->tally.bytes);
        ASSERT_EQ(model_.statistics.flows, real_->counters.removed_flows());
        ASSERT_EQ(model_.statistics.collisions, real_->counters.collided_flows());
        ASSERT_EQ(model_.record_count(), real_->record_count);
    }

    void expect_same_slots() {
        for (uint32_t i = 0; i < model_.slots().size(); ++i) {
            const model_slot& slot = model_.slots()[i];
            const kestrel::fast_record& fast = real_->fast[i];
            ASSERT_EQ(slot.key, real_->keys[i]) << i;
            ASSERT_EQ(slot.packets, fast.packets()) << i;
            ASSERT_EQ(slot.bytes, fast.bytes) << i;
            if (slot.key >= 0)
                continue;
            ASSERT_EQ(slot.start, fast.start) << i;
            ASSERT_EQ(slot.end, fast.end) << i;
            ASSERT_EQ(slot.tcp_flags, fast.tcp_flags()) << i;
            ASSERT_EQ(0, std::memcmp(slot.record.bytes(), &kestrel::queue_record(*real_, i),
                                     record_size()))
                << i;
        }
    }

    const queue_model::happenings& happened() const { return model_.happened; }

  private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    bool one_in(uint32_t n) { return below(n) == 0; }
    size_t record_size() const { return FLOW_RECORD_BASE_SIZE + data_size_; }

    std::vector<process_plugin> make_plugins(unsigned first) {
        std::vector<process_plugin> plugins;
        for (unsigned i = 0; i < config_.plugins; ++i) {
            trace_plugin& trace = traces_[first + i];
            trace.data_offset = static_cast<uint16_t>(FLOW_RECORD_BASE_SIZE + config_.other_data +
                                                      i * trace_data_size);
            plugins.push_back(plugin_of(trace));
        }
        return plugins;
    }

    // Few keys, many of them equal in one half, so that a comparison of half a key shows.
    void make_keys() {
        const uint32_t buckets = 1u << (config_.exponent - 3);
        for (uint32_t n = 0; n < buckets * config_.keys_per_bucket; ++n) {
            const uint32_t low = (n % buckets) * 8 + below(2) * 4096;
            const uint64_t high = 0x8000'0000u + n / buckets / 2;
            keys_.push_back(static_cast<int64_t>(high << 32 | (low + (n / buckets) % 2)));
        }
    }

    void time_goes_on() {
        packet_clock_ += below(static_cast<uint32_t>(2 * ms));
        if (one_in(10))
            set_now();
        if (one_in(2000))  // the wall clock is set
            clock_offset_ = (static_cast<int64_t>(below(120)) - 60) * static_cast<int64_t>(second);
        if (one_in(500))
            clock_offset_ = 0;
        if (one_in(300))  // nothing came for a while
            packet_clock_ += below(1000) * ms;
    }

    void set_now() {
        now_ = packet_clock_ + static_cast<uint64_t>(clock_offset_);
        if (one_in(1000))
            now_ = one_in(2) ? 0 : UINT64_MAX;
        real_->now = now_;
        model_.set_now(now_);
    }

    uint64_t packet_time() {
        switch (below(200)) {
            case 0:
                return 0;
            case 1:
                return UINT64_MAX - below(3);
            case 2:
                return packet_clock_ + below(3600) * second;
            case 3:
                return packet_clock_ - below(3600) * second;
            default:
                return one_in(10) ? packet_clock_ - below(static_cast<uint32_t>(20 * ms))
                                  : packet_clock_;
        }
    }

    uint32_t packet_count() {
        constexpr uint32_t big[] = {0,          0x00FF'FFF0, 0x00FF'FFF1, 0x00FF'FFFF,
                                    16'777'200, 0x0100'0000, 0xFFFF'FFFF, 8'000'000};
        return one_in(20) ? big[below(std::size(big))] : 1;
    }

    uint32_t byte_count() {
        constexpr uint32_t big[] = {0,           0xFFFF'FFF0, 0xFFFF'FFF1, 0xFFFF'FFFF,
                                    0x8000'0000, 0xFFFF'FFB0, 0x7FFF'FFF8};
        return one_in(20) ? big[below(std::size(big))] : 40 + below(1460);
    }

    model_record any_record() {
        model_record record(data_size_);
        for (size_t i = 0; i < record_size(); ++i)
            record.bytes()[i] = static_cast<uint8_t>(random_());
        flow_record& r = record.fields();
        r.end = packet_time();
        r.start = one_in(20) ? packet_time() : r.end;
        r.packets = packet_count();
        r.bytes = byte_count();
        r.tcpflags = static_cast<uint8_t>(1u << below(8));
        r.dstport = one_in(50) ? port_exported_at_start : 80;
        r.export_flag = one_in(200) ? 1 : 0;
        return record;
    }

    void packet() {
        model_record packet = any_record();
        model_record copy = packet;
        const int64_t key = keys_[below(static_cast<uint32_t>(keys_.size()))];
        queue_update(real_, &packet.fields(), key);
        model_.update(copy, key);
        EXPECT_EQ(0, std::memcmp(copy.bytes(), packet.bytes(), record_size()));
    }

    void restart_scan() {
        // Now and then several in a row, as when no packets come.
        for (uint32_t i = 0; i <= below(5); ++i) {
            kestrel::queue_restart_scan(*real_, now_);
            model_.restart_scan();
        }
    }

    void remove_any() {
        const uint32_t slot = below(1u << config_.exponent);
        queue_remove_record(real_, slot, 3);
        model_.remove(slot, 3);
    }

    void output_any() {
        model_record record = any_record();
        model_record copy = record;
        queue_remove_record_oneshot(real_, &record.fields(), 0);
        model_.output(copy, 0);
    }

    void take_report() {
        kestrel::queue_publish(*real_);  // as who let go of the lock would have
        const kestrel::cache_report report = real_->statistics.take();
        EXPECT_EQ(model_.statistics.packets - reported_.packets, report.packets);
        EXPECT_EQ(model_.statistics.bytes - reported_.bytes, report.bytes);
        EXPECT_EQ(model_.statistics.flows - reported_.flows, report.flows);
        EXPECT_EQ(model_.statistics.collisions - reported_.collisions, report.collisions);
        EXPECT_EQ(0u, report.invalid);
        EXPECT_EQ(model_.record_count(), report.record_count);
        reported_ = model_.statistics;
    }

    static std::string describe(const flow_record& r) {
        return "start " + std::to_string(r.start) + " end " + std::to_string(r.end) + " packets " +
               std::to_string(r.packets) + " bytes " + std::to_string(r.bytes) + " flags " +
               std::to_string(r.tcpflags);
    }

    configuration config_;
    std::mt19937_64 random_;
    model_statistics reported_{};  // up to the last report
    size_t data_size_;
    std::vector<trace_plugin> traces_;  // the real queue's, then the model's
    std::vector<process_plugin> real_plugins_;
    queue_model model_;
    temporal_storage* storage_;
    flow_queue* real_;
    std::vector<int64_t> keys_;
    uint64_t packet_clock_ = 1'700'000'000 * second;
    int64_t clock_offset_ = 0;
    uint64_t now_ = 0;
};

class QueueAgainstModel : public testing::TestWithParam<configuration> {
  protected:
    void SetUp() override { verbose_level = -2; }
    void TearDown() override { verbose_level = -1; }
};

TEST_P(QueueAgainstModel, EndsTheSameFlowsInTheSameOrder) {
    two_queues both(GetParam());
    for (int n = 0; n < 100'000; ++n) {
        both.step();
        both.expect_same_output();
        both.expect_same_counters();
        if (n % 64 == 0)
            both.expect_same_slots();
        if (HasFailure())
            FAIL() << "operation " << n;
    }
    const queue_model::happenings& happened = both.happened();
    EXPECT_LT(50u, happened.ended[REMOVAL_ACTIVE]);
    EXPECT_LT(50u, happened.ended[REMOVAL_COLLISION]);
    EXPECT_LT(50u, happened.ended[REMOVAL_FORCED]);
    if (GetParam().inactive_ns == UINT64_MAX)
        EXPECT_EQ(0u, happened.ended[REMOVAL_INACTIVE]);
    else
        EXPECT_LT(50u, happened.ended[REMOVAL_INACTIVE]);
    EXPECT_LT(50u, happened.joined);
    EXPECT_LT(50u, happened.victims);
    EXPECT_LT(50u, happened.invalid);
    EXPECT_LT(50u, happened.scans_forced);
    EXPECT_LT(50u, happened.scans_caught_up);
    EXPECT_LT(50u, happened.exported_at_once);
}

INSTANTIATE_TEST_SUITE_P(Random, QueueAgainstModel, testing::ValuesIn(configurations),
                         [](const auto& test) { return test.param.name; });

}  // namespace
