// Tests of the record loop on packet time: what exports see of the clock, when they are flushed,
// and how it ends. Every run ends its process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/packet_clock.h"
#include "base/wire.h"
#include "engine/record_loop.h"
#include "engine/replay.h"
#include "engine/run_configuration.h"
#include "engine/signals.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/service.h"

namespace kestrel {
namespace {

using testing::ExitedWithCode;

constexpr uint64_t second = 1'000'000'000;
constexpr uint64_t start = 1'000'000 * second;
constexpr unsigned record_size = 88;
constexpr const char* farewell = "QUIT signal processed. All data flushed. Exiting ...\n";

// Milliseconds since the start by the program's clock.
unsigned long now_ms() {
    return (timer_get_nsec() - start) / 1'000'000;
}

uint32_t note_record(void*, flow_record* record) {
    std::fprintf(stderr, "%u at %lu\n", record->packets, now_ms());
    return 0;
}

uint32_t note_flush(void*) {
    std::fprintf(stderr, "flush at %lu\n", now_ms());
    return 0;
}

// A flow of so many packets that left so many ms after the start.
struct slot {
    uint64_t left_ms;
    uint32_t packets;
};

struct ReplayRecordLoop : testing::Test {
    run_configuration configuration;
    std::vector<slot> slots;
    uint64_t end_ms = 0;
    bool has_failed = false;
    int verbosity = -1;

    ReplayRecordLoop() {
        configuration.exports.clear();
        configuration.exports.emplace_back();
        configuration.exports.back().plugin.export_record = note_record;
        configuration.exports.back().plugin.flush = note_flush;
    }

    temporal_storage* fill() const {
        static replay_totals totals{.frames = 12, .no_flow = 2, .has_failed = false};
        totals.has_failed = has_failed;
        temporal_storage* storage =
            temporal_storage_init(64, record_size + sizeof(replay_stamp), nullptr, "test records");
        const auto put = [storage](uint32_t packets, replay_stamp stamp) {
            uint8_t bytes[record_size + sizeof(replay_stamp)] = {};
            flow_record record{};
            record.packets = packets;
            std::memcpy(bytes, &record, sizeof record);
            store_native(bytes + record_size, stamp);
            temporal_storage_put_block(storage, bytes);
        };
        for (const auto& [left_ms, packets] : slots)
            put(packets, {start + left_ms * 1'000'000, nullptr});
        put(0, {start + end_ms * 1'000'000, &totals});
        return storage;
    }
    int run() {
        packet_clock_start(start);
        temporal_storage* storage = fill();
        verbose_level = verbosity;
        return replay_record_loop(storage, record_size, &configuration);
    }
    void expect(const std::string& output) {
        EXPECT_EXIT(run(), ExitedWithCode(0), testing::Eq(output + farewell));
    }
};

TEST_F(ReplayRecordLoop, ExportsSeeTheTimeAtWhichEachFlowLeft) {
    slots = {{0, 1}, {1'500, 2}, {1'500, 3}, {2'250, 4}};
    end_ms = 3'000;
    expect("1 at 0\n2 at 1500\n3 at 1500\n4 at 2250\nflush at 3000\n");
}

TEST_F(ReplayRecordLoop, AnEarlierStampLeavesTheClockWhereItIs) {
    slots = {{700, 1}, {650, 2}};
    end_ms = 700;
    expect("1 at 700\n2 at 700\nflush at 700\n");
}

TEST_F(ReplayRecordLoop, ASilenceFlushesAtTheSecondLook) {
    // Looks at 6 s, 12 s, ...: the first one notes that nothing was exported since the last.
    slots = {{1'000, 1}, {14'000, 2}};
    end_ms = 14'000;
    expect("1 at 1000\nflush at 12000\n2 at 14000\nflush at 14000\n");
}

TEST_F(ReplayRecordLoop, ALookIsMadeAWhileBehindAFlowAtTheEarliest) {
    slots = {{5'980, 1}, {20'000, 2}};
    end_ms = 20'000;
    expect("1 at 5980\nflush at 12000\nflush at 18000\n2 at 20000\nflush at 20000\n");
}

TEST_F(ReplayRecordLoop, AFlowInTimePutsTheFlushOff) {
    slots = {{1'000, 1}, {8'000, 2}, {15'000, 3}};
    end_ms = 15'000;
    expect("1 at 1000\n2 at 8000\n3 at 15000\nflush at 15000\n");
}

TEST_F(ReplayRecordLoop, TheSilenceBeforeTheEndFlushesToo) {
    slots = {{1'000, 1}};
    end_ms = 20'000;
    expect("1 at 1000\nflush at 12000\nflush at 18000\nflush at 20000\n");
}

TEST_F(ReplayRecordLoop, AnEndlessSilenceFlushesSixteenTimes) {
    slots = {{0, 1}};
    end_ms = 1'000'000'000;
    std::string expected = "1 at 0\n";
    for (int look = 2; look <= 17; ++look)
        expected += "flush at " + std::to_string(look * 6'000) + "\n";
    expect(expected + "flush at 1000000000\n");
}

TEST_F(ReplayRecordLoop, TheEndTellsWhatWasRead) {
    verbosity = 0;
    slots = {{0, 3}, {0, 7}};
    expect(
        "3 at 0\n7 at 0\nflush at 0\n"
        "VERBOSE: 0:Input ended: 12 packets read, 10 in 2 flows, 2 no flow\n");
}

TEST_F(ReplayRecordLoop, AnInputThatBrokeOffEndsTheProgramWithStatus1) {
    slots = {{0, 3}};
    has_failed = true;
    EXPECT_EXIT(run(), ExitedWithCode(1),
                testing::Eq(std::string("3 at 0\nflush at 0\n") + farewell));
}

TEST_F(ReplayRecordLoop, AGlobalRejectionReturnsItWithoutAFlush) {
    slots = {{0, 1}};
    filter_plugin reject{};
    reject.filter = [](void*, flow_record*) -> int32_t { return 7; };
    configuration.global_filters = {reject};
    EXPECT_EXIT(_exit(run()), ExitedWithCode(7), testing::Eq(""));
}

TEST_F(ReplayRecordLoop, AnInterruptIsFollowedByTheReplaysOwnEnd) {
    slots = {{0, 1}};
    EXPECT_EXIT(
        {
            exit_requested = 1;
            run();
        },
        ExitedWithCode(0), testing::Eq(std::string("1 at 0\nflush at 0\n") + farewell));
}

}  // namespace
}  // namespace kestrel
