// Tests of the record loop: what filters and exports see of each record, and how the loop ends.
#include "engine/record_loop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/clock.h"
#include "engine/run_configuration.h"
#include "engine/signals.h"
#include "flow/flush_request.h"
#include "flow/ring.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/service.h"

namespace kestrel {
namespace {

using testing::ExitedWithCode;

constexpr const char* farewell = "QUIT signal processed. All data flushed. Exiting ...\n";

// Exports write what they see to standard error, where the death tests compare it whole:
// NAME:packets,inputsnmp,outputsnmp,sampling. Records are told apart by their packet count.
uint32_t note_record(void* instance, flow_record* record) {
    std::fprintf(stderr, "%s:%u,%u,%u,%u\n", static_cast<const char*>(instance), record->packets,
                 record->inputsnmp, record->outputsnmp, record->sampling);
    return 0;
}

uint32_t refuse_record(void* instance, flow_record* record) {
    note_record(instance, record);
    return 0xFFFFFFFF;
}

uint32_t note_flush(void* instance) {
    std::fprintf(stderr, "%s:flush\n", static_cast<const char*>(instance));
    return 0;
}

export_entry make_export(const char* name) {
    export_entry entry;
    entry.name = name;
    entry.plugin.export_record = note_record;
    entry.plugin.flush = note_flush;
    entry.instance = const_cast<char*>(name);
    return entry;
}

const plugin_description* filter_description() {
    static constexpr plugin_description description{"tested", "", 0, 0};
    return &description;
}

filter_plugin make_filter(filter_filter_function* filter, intptr_t instance = 0) {
    filter_plugin plugin{};
    plugin.desc = filter_description;
    plugin.filter = filter;
    plugin.instance = reinterpret_cast<void*>(instance);
    return plugin;
}

// Ends the run in the pass that gets the record with this many packets.
int32_t stop_at(void* packets, flow_record* record) {
    if (record->packets == reinterpret_cast<intptr_t>(packets))
        exit_requested = 1;
    return 0;
}

int32_t reject_packets(void* packets, flow_record* record) {
    return record->packets == reinterpret_cast<intptr_t>(packets) ? 7 : 0;
}

int32_t note_filter(void* name, flow_record*) {
    std::fprintf(stderr, "filter %c\n", static_cast<char>(reinterpret_cast<intptr_t>(name)));
    return 0;
}

int32_t add_hundred_packets(void*, flow_record* record) {
    record->packets += 100;
    return 0;
}

// Runs the loop over the given records (stored before it starts) until the last one was got.
int run(run_configuration& configuration, const std::vector<flow_record>& records) {
    temporal_storage* storage =
        temporal_storage_init(64, sizeof(flow_record), nullptr, "test records");
    for (const flow_record& record : records)
        temporal_storage_put_block(storage, &record);
    configuration.global_filters.insert(
        configuration.global_filters.begin(),
        make_filter(stop_at, static_cast<intptr_t>(records.back().packets)));
    return main_record_loop(storage, sizeof(flow_record), &configuration);
}

std::vector<flow_record> numbered(uint32_t count) {
    std::vector<flow_record> records(count);
    for (uint32_t i = 0; i < count; ++i)
        records[i].packets = i + 1;
    return records;
}

flow_record sampled_record(uint16_t sampling) {
    flow_record record{};
    record.packets = 1;
    record.sampling = sampling;
    return record;
}

struct RecordLoop : testing::Test {
    run_configuration configuration;
    RecordLoop() { configuration.exports.clear(); }

    export_entry& add(const char* name) {
        configuration.exports.push_back(make_export(name));
        return configuration.exports.back();
    }

    void expect(const std::vector<flow_record>& records, const std::string& output) {
        EXPECT_EXIT(run(configuration, records), ExitedWithCode(0), testing::Eq(output));
    }
};

TEST_F(RecordLoop, ExportsGetEveryRecordInOrderAndOneFlushAtTheEnd) {
    add("a");
    add("b");
    expect(numbered(2), std::string("a:1,0,0,0\nb:1,0,0,0\na:2,0,0,0\nb:2,0,0,0\n"
                                    "a:flush\nb:flush\n") +
                            farewell);
}

template <int32_t pause_ms>
int32_t note_tending(void* instance) {
    std::fprintf(stderr, "%s:tend\n", static_cast<const char*>(instance));
    return pause_ms;
}

TEST_F(RecordLoop, ExportsAreTendedBeforeTheFirstRecordAndThenAsTheyWantIt) {
    add("a").tend = note_tending<0>;
    add("b").tend = note_tending<EXPORT_TEND_NEVER>;
    add("c").tend = note_tending<3'600'000>;
    add("d");
    expect(numbered(2), std::string("a:tend\nb:tend\nc:tend\n"
                                    "a:1,0,0,0\nb:1,0,0,0\nc:1,0,0,0\nd:1,0,0,0\n"
                                    "a:tend\n"
                                    "a:2,0,0,0\nb:2,0,0,0\nc:2,0,0,0\nd:2,0,0,0\n"
                                    "a:flush\nb:flush\nc:flush\nd:flush\n") +
                            farewell);
}

TEST_F(RecordLoop, StampedInterfacesStayForLaterExports) {
    add("a").snmp_input_if = 5;
    add("b").snmp_output_if = 9;
    add("c");
    expect(numbered(1), std::string("a:1,5,0,0\nb:1,5,9,0\nc:1,5,9,0\n"
                                    "a:flush\nb:flush\nc:flush\n") +
                            farewell);
}

TEST_F(RecordLoop, InterfaceZeroIsStamped) {
    export_entry& entry = add("a");
    entry.snmp_input_if = 0;
    entry.snmp_output_if = 0;
    flow_record record = sampled_record(0);
    record.inputsnmp = 3;
    record.outputsnmp = 4;
    expect({record}, std::string("a:1,0,0,0\na:flush\n") + farewell);
}

TEST_F(RecordLoop, ExportsOfAStampedInterfaceStampEvenWhatTheyFilterAway) {
    export_entry& entry = add("a");
    entry.snmp_input_if = 5;
    entry.filters = {make_filter(reject_packets, 1)};
    add("b");
    expect(numbered(1), std::string("b:1,5,0,0\na:flush\nb:flush\n") + farewell);
}

TEST_F(RecordLoop, AnExportFilterSkipsOnlyItsExport) {
    add("a").filters = {make_filter(reject_packets, 2)};
    add("b");
    expect(numbered(3), std::string("a:1,0,0,0\nb:1,0,0,0\nb:2,0,0,0\na:3,0,0,0\nb:3,0,0,0\n"
                                    "a:flush\nb:flush\n") +
                            farewell);
}

TEST_F(RecordLoop, TheFirstRejectionEndsAFilterChain) {
    add("a").filters = {make_filter(note_filter, 'x'), make_filter(reject_packets, 1),
                        make_filter(note_filter, 'y')};
    expect(numbered(1), std::string("filter x\na:flush\n") + farewell);
}

TEST_F(RecordLoop, AFilterMayChangeTheRecordForWhatFollows) {
    add("a").filters = {make_filter(add_hundred_packets)};
    add("b");
    expect(numbered(1), std::string("a:101,0,0,0\nb:101,0,0,0\na:flush\nb:flush\n") + farewell);
}

TEST_F(RecordLoop, SamplingOfThreeTakesRecordsZeroThreeAndSix) {
    add("a").sampling_rate = 3;
    expect(numbered(8), std::string("a:1,0,0,3\na:4,0,0,3\na:7,0,0,3\na:flush\n") + farewell);
}

TEST_F(RecordLoop, SamplingCountsRecordsThatTheExportsFilterRejects) {
    export_entry& entry = add("a");
    entry.sampling_rate = 2;
    entry.filters = {make_filter(reject_packets, 1)};
    expect(numbered(4), std::string("a:3,0,0,2\na:flush\n") + farewell);
}

TEST_F(RecordLoop, SamplingOfOneShowsOneForAnUnsampledRecord) {
    add("a").sampling_rate = 1;
    add("b");
    expect({sampled_record(0)}, std::string("a:1,0,0,1\nb:1,0,0,0\na:flush\nb:flush\n") + farewell);
}

TEST_F(RecordLoop, SamplingOfOneLeavesASampledRecordAsItIs) {
    add("a").sampling_rate = 1;
    expect({sampled_record(20)}, std::string("a:1,0,0,20\na:flush\n") + farewell);
}

TEST_F(RecordLoop, SamplingMultipliesTheDriversAndIsUndone) {
    add("a").sampling_rate = 10;
    add("b");
    expect({sampled_record(20)},
           std::string("a:1,0,0,200\nb:1,0,0,20\na:flush\nb:flush\n") + farewell);
}

TEST_F(RecordLoop, ASamplingProductBeyondSixteenBitsIsCutAndNotRestored) {
    add("a").sampling_rate = 1000;
    add("b");
    expect({sampled_record(100)},  // 100 * 1000 - 65536 = 34464; 34464 / 1000 = 34
           std::string("a:1,0,0,34464\nb:1,0,0,34\na:flush\nb:flush\n") + farewell);
}

TEST_F(RecordLoop, ASamplingRateBeyondSixteenBitsIsCut) {
    add("a").sampling_rate = 70000;
    add("b");
    expect({sampled_record(0)},  // 70000 - 65536
           std::string("a:1,0,0,4464\nb:1,0,0,0\na:flush\nb:flush\n") + farewell);
}

TEST_F(RecordLoop, TheLargestSamplingRatesDoNotOverflow) {
    add("a").sampling_rate = 2147483647;
    add("b");
    expect({sampled_record(65535)},  // 65535 * 2147483647 ends in 0x0001; 1 / 2147483647 = 0
           std::string("a:1,0,0,1\nb:1,0,0,0\na:flush\nb:flush\n") + farewell);
}

TEST_F(RecordLoop, AnExportThatRefusesARecordIsCalledAgain) {
    add("a").plugin.export_record = refuse_record;
    expect(numbered(2), std::string("a:1,0,0,0\na:2,0,0,0\na:flush\n") + farewell);
}

TEST_F(RecordLoop, GlobalFiltersRunOnceBeforeTheExports) {
    configuration.global_filters = {make_filter(note_filter, 'g'), make_filter(note_filter, 'h')};
    add("a");
    add("b");
    expect(numbered(1), std::string("filter g\nfilter h\na:1,0,0,0\nb:1,0,0,0\n"
                                    "a:flush\nb:flush\n") +
                            farewell);
}

TEST_F(RecordLoop, AGlobalRejectionReturnsItWithoutAFlush) {
    configuration.global_filters = {make_filter(reject_packets, 2), make_filter(note_filter, 'g')};
    add("a");
    EXPECT_EXIT(_exit(run(configuration, numbered(3))), ExitedWithCode(7),
                testing::Eq("filter g\na:1,0,0,0\n"));
}

TEST_F(RecordLoop, RecordsBehindTheStopAreNotTaken) {
    add("a");
    configuration.global_filters = {make_filter(stop_at, 2)};
    expect(numbered(3), std::string("a:1,0,0,0\na:2,0,0,0\na:flush\n") + farewell);
}

// Requests a flush at record 1 and clears it at record 3, as signal handler and remover do.
int32_t flush_between(void*, flow_record* record) {
    if (record->packets == 1) {
        exit_requested = 1;
        queue_force_flush = 1;
    }
    if (record->packets == 3)
        queue_force_flush = 0;
    return 0;
}

TEST_F(RecordLoop, TheLoopGoesOnWhileAFlushIsUnderWay) {
    add("a");
    configuration.global_filters = {make_filter(flush_between)};
    expect(numbered(4), std::string("a:1,0,0,0\na:2,0,0,0\na:3,0,0,0\na:flush\n") + farewell);
}

// Records that a flush put into the storage are exported, however late the stop is noticed.
int32_t stop_after_flush_of_three(void*, flow_record* record) {
    if (record->packets == 1)
        exit_requested = 1;
    return 0;
}

TEST_F(RecordLoop, WhatAFlushPutIsTakenBeforeTheStop) {
    add("a");
    configuration.global_filters = {make_filter(stop_after_flush_of_three)};
    EXPECT_EXIT(
        {
            temporal_storage* storage =
                temporal_storage_init(8, sizeof(flow_record), nullptr, "test records");
            for (const flow_record& record : numbered(4))
                temporal_storage_put_block(storage, &record);
            storage->flushed = 3;
            main_record_loop(storage, sizeof(flow_record), &configuration);
        },
        ExitedWithCode(0),
        testing::Eq(std::string("a:1,0,0,0\na:2,0,0,0\na:3,0,0,0\na:flush\n") + farewell));
}

// A clock that stands wherever the test put it.
uint64_t wall_ns;
uint64_t uptime_ns;
constexpr clock_source stepped_clocks = {[] { return wall_ns; }, [] { return uptime_ns; }};

uint32_t note_startup(void*, flow_record* record) {
    std::fprintf(stderr, "%u: %lu\n", record->packets, timer_get_startup_time());
    return 0;
}

// At record 1 the clock jumps by a day, and the flush that this asks for puts records 2 and 3.
int32_t jump_at_one(void* storage, flow_record* record) {
    if (record->packets == 1) {
        wall_ns += 86'400'000'000'000;
        flush_for_clock_jump();
        static_cast<temporal_storage*>(storage)->flushed = 3;
        end_flush(begin_flush());
    }
    if (record->packets == 5)
        exit_requested = 1;
    return 0;
}

TEST_F(RecordLoop, TheStartUpTimeIsNewOnceTheFlowsFromBeforeAClockJumpAreOut) {
    add("a").plugin.export_record = note_startup;
    EXPECT_EXIT(
        {
            wall_ns = 1'000'000;
            uptime_ns = 400'000;
            set_clock_source(&stepped_clocks);
            timer_startup_time_update();
            temporal_storage* storage =
                temporal_storage_init(8, sizeof(flow_record), nullptr, "test records");
            for (const flow_record& record : numbered(5))
                temporal_storage_put_block(storage, &record);
            configuration.global_filters = {
                make_filter(jump_at_one, reinterpret_cast<intptr_t>(storage))};
            main_record_loop(storage, sizeof(flow_record), &configuration);
        },
        ExitedWithCode(0),
        testing::Eq(std::string("1: 600000\n2: 600000\n3: 600000\n"
                                "4: 86400000600000\n5: 86400000600000\na:flush\n") +
                    farewell));
}

TEST_F(RecordLoop, ItStopsWithoutAnyRecord) {
    add("a");
    EXPECT_EXIT(
        {
            exit_requested = 1;
            temporal_storage* storage =
                temporal_storage_init(8, sizeof(flow_record), nullptr, "empty");
            main_record_loop(storage, sizeof(flow_record), &configuration);
        },
        ExitedWithCode(0), testing::Eq(std::string("a:flush\n") + farewell));
}

TEST(IdleWatch, NothingIsDueWhileTheFirstPeriodRuns) {
    idle_watch idle(100);
    EXPECT_FALSE(idle.is_flush_due(100));
    EXPECT_FALSE(idle.is_flush_due(105));
}

TEST(IdleWatch, TheSecondCheckWithoutExportIsDue) {
    idle_watch idle(100);
    EXPECT_FALSE(idle.is_flush_due(106));  // first check; the next one is after 111
    EXPECT_FALSE(idle.is_flush_due(111));
    EXPECT_TRUE(idle.is_flush_due(112));
}

TEST(IdleWatch, EveryFurtherPeriodIsDue) {
    idle_watch idle(100);
    EXPECT_FALSE(idle.is_flush_due(106));
    EXPECT_TRUE(idle.is_flush_due(112));
    EXPECT_FALSE(idle.is_flush_due(117));
    EXPECT_TRUE(idle.is_flush_due(118));
    EXPECT_TRUE(idle.is_flush_due(124));
}

TEST(IdleWatch, AnExportStartsTheWaitAgain) {
    idle_watch idle(100);
    EXPECT_FALSE(idle.is_flush_due(106));
    idle.note_export();
    EXPECT_FALSE(idle.is_flush_due(112));
    EXPECT_TRUE(idle.is_flush_due(118));
}

TEST(IdleWatch, ALongGapCountsAsOneCheck) {
    idle_watch idle(100);
    EXPECT_FALSE(idle.is_flush_due(100000));
    EXPECT_FALSE(idle.is_flush_due(100005));
    EXPECT_TRUE(idle.is_flush_due(100006));
}

}  // namespace
}  // namespace kestrel
