// Tests of the flow cache without its threads: one operation, one expectation. Ageing and flushing
// are in remover_test.
#include "flow/flow_cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "flow/flow_cache_update.h"
#include "tests/support/queue_fixture.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;
using namespace std::chrono_literals;

class Queue : public queue_fixture {};

// ---- Joining and starting flows ----

TEST_F(Queue, PacketsOfOneKeyAreOneFlow) {
    make();
    update(key_of(1), {.end = 100, .bytes = 40, .flags = 0x02});
    update(key_of(1), {.end = 150, .bytes = 60, .flags = 0x10});
    EXPECT_EQ(1u, queue_->record_count);
    remove_all();
    ASSERT_EQ(1u, taken().size());
    EXPECT_EQ(100u, flow(0).start);
    EXPECT_EQ(150u, flow(0).end);
    EXPECT_EQ(2u, flow(0).packets);
    EXPECT_EQ(100u, flow(0).bytes);
    EXPECT_EQ(0x12u, flow(0).tcpflags);
}

TEST_F(Queue, FlowsAreToldApartByKeyAlone) {
    make();
    update(key_of(1), {.end = 100, .source = 0xC000'0201});
    update(key_of(1), {.end = 100, .source = 0xC633'6402});
    EXPECT_EQ(1u, queue_->record_count);
}

TEST_F(Queue, KeysThatAgreeInOneHalfAreTwoFlows) {
    make();
    update(static_cast<flow_key>(0x8000'0001'0000'0008), {.end = 100});
    update(static_cast<flow_key>(0x8000'0002'0000'0008), {.end = 100});
    update(static_cast<flow_key>(0x8000'0001'0000'0009), {.end = 100});
    EXPECT_EQ(3u, queue_->record_count);
}

TEST_F(Queue, LowBitsOfTheKeyChooseTheBucket) {
    make();  // 32 slots: bits 3 and 4
    update(static_cast<flow_key>(0x8000'0000'0000'0018), {.end = 100});
    EXPECT_GT(0, queue_->keys[24]);
}

TEST_F(Queue, FlowIsFoundBehindAFreeSlot) {
    make();
    update(key_of(1), {.end = 100});
    update(key_of(2), {.end = 100});
    queue_remove_record(queue_, 0, REMOVAL_FORCED);
    update(key_of(2), {.end = 110});
    EXPECT_EQ(1u, queue_->record_count);
    EXPECT_EQ(2u, queue_->fast[1].packets());
}

TEST_F(Queue, FirstFreeSlotTakesANewFlow) {
    make();
    for (uint64_t n = 0; n < 4; ++n)
        update(key_of(n), {.end = 100});
    queue_remove_record(queue_, 2, REMOVAL_FORCED);
    queue_remove_record(queue_, 1, REMOVAL_FORCED);
    update(key_of(9), {.end = 100});
    EXPECT_EQ(key_of(9), queue_->keys[1]);
}

TEST_F(Queue, WholeRecordTravelsWithItsDataSpace) {
    data_size_ = 13;
    make();
    packet_buffer packet = make_packet({.end = 100});
    for (size_t i = 0; i < 13; ++i)
        packet.bytes[88 + i] = static_cast<uint8_t>(i + 1);
    packet.record().inputsnmp = 7;
    queue_update(queue_, &packet.record(), key_of(1));
    remove_all();
    ASSERT_EQ(1u, taken().size());
    EXPECT_EQ(7u, flow(0).inputsnmp);
    for (size_t i = 0; i < 13; ++i)
        EXPECT_EQ(i + 1, taken()[0].bytes[88 + i]);
}

TEST_F(Queue, FullRecordKeepsTheFirstPacketUntilItLeaves) {
    make();
    update(key_of(1), {.end = 100, .bytes = 40});
    update(key_of(1), {.end = 150, .bytes = 60});
    const flow_record& record = queue_record(*queue_, 0);
    EXPECT_EQ(100u, record.end);
    EXPECT_EQ(1u, record.packets);
    EXPECT_EQ(40u, record.bytes);
}

// ---- Full buckets ----

TEST_F(Queue, NinthFlowOfABucketEvictsAVictim) {
    make();
    for (uint64_t n = 0; n < 9; ++n)
        update(key_of(n), {.end = 100 + n});
    ASSERT_EQ(1u, taken().size());
    EXPECT_EQ(100u, flow(0).start);
    EXPECT_EQ(key_of(8), queue_->keys[0]);
    EXPECT_EQ(1u, queue_->counters.collided_flows());
    EXPECT_EQ(8u, queue_->record_count);
}

TEST_F(Queue, VictimsTakeTurnsAcrossAllBuckets) {
    make();
    for (uint64_t n = 0; n < 8; ++n) {
        update(key_of(n), {.end = 100});
        update(key_of(n, 8), {.end = 100});
    }
    update(key_of(8), {.end = 100});     // turn 0, bucket 0
    update(key_of(8, 8), {.end = 100});  // turn 1, bucket 1
    update(key_of(9), {.end = 100});     // turn 2, bucket 0
    EXPECT_EQ(key_of(8), queue_->keys[0]);
    EXPECT_EQ(key_of(8, 8), queue_->keys[9]);
    EXPECT_EQ(key_of(9), queue_->keys[2]);
}

TEST_F(Queue, VictimsStartAnewAfterTheEighth) {
    make();
    for (uint64_t n = 0; n < 17; ++n)
        update(key_of(n), {.end = 100});
    EXPECT_EQ(key_of(16), queue_->keys[0]);
}

// ---- What ends a flow when a packet comes ----

TEST_F(Queue, PacketOlderThanTheLastOneEndsTheFlow) {
    make();
    update(key_of(1), {.end = 200, .bytes = 40});
    update(key_of(1), {.end = 199, .bytes = 60});
    ASSERT_EQ(1u, taken().size());
    EXPECT_EQ(200u, flow(0).end);
    EXPECT_EQ(1u, queue_->counters.collided_flows());
    EXPECT_EQ(199u, queue_->fast[0].start);
    EXPECT_EQ(1u, queue_->fast[0].packets());
}

TEST_F(Queue, PacketOfTheSameTimeJoinsTheFlow) {
    make();
    update(key_of(1), {.end = 200});
    update(key_of(1), {.end = 200});
    EXPECT_EQ(2u, queue_->fast[0].packets());
}

TEST_F(Queue, PacketOlderThanTheStartIsOutOfOrderAndNoTimeout) {
    with_plugin();
    make();
    update(key_of(1), {.end = 5'000'000'000});
    update(key_of(1), {.end = 1});
    EXPECT_EQ(std::vector<int32_t>{REMOVAL_COLLISION}, plugin_.reasons);
    EXPECT_EQ(1u, queue_->counters.collided_flows());
}

TEST_F(Queue, PacketAtTheActiveTimeoutEndsTheFlow) {
    with_plugin();
    make();
    update(key_of(1), {.end = 100});
    update(key_of(1), {.end = 100 + active_ns - 1});
    EXPECT_TRUE(plugin_.reasons.empty());
    update(key_of(1), {.end = 100 + active_ns});
    EXPECT_EQ(std::vector<int32_t>{REMOVAL_ACTIVE}, plugin_.reasons);
    EXPECT_EQ(0u, queue_->counters.collided_flows());
    EXPECT_EQ(1u, queue_->record_count);
}

TEST_F(Queue, Packet16777201EndsTheFlow) {
    with_plugin();
    make();
    update(key_of(1), {.end = 100});
    queue_->fast[0].set(16'777'199, 0);
    update(key_of(1), {.end = 101});
    EXPECT_EQ(16'777'200u, queue_->fast[0].packets());
    EXPECT_TRUE(plugin_.reasons.empty());
    update(key_of(1), {.end = 102});
    EXPECT_EQ(std::vector<int32_t>{REMOVAL_ACTIVE}, plugin_.reasons);
    EXPECT_EQ(16'777'200u, flow(0).packets);
    EXPECT_EQ(1u, queue_->fast[0].packets());
    EXPECT_EQ(102u, queue_->fast[0].start);
}

TEST_F(Queue, ByteSumAtTheLimitStillJoins) {
    make();
    update(key_of(1), {.end = 100, .bytes = 0xFFFF'FFB0});
    update(key_of(1), {.end = 101, .bytes = 0x40});
    EXPECT_EQ(0xFFFF'FFF0u, queue_->fast[0].bytes);
    EXPECT_TRUE(taken().empty());
}

TEST_F(Queue, ByteSumAboveTheLimitEndsTheFlow) {
    with_plugin();
    make();
    update(key_of(1), {.end = 100, .bytes = 0xFFFF'FFB0});
    update(key_of(1), {.end = 101, .bytes = 0x41});
    EXPECT_EQ(std::vector<int32_t>{REMOVAL_ACTIVE}, plugin_.reasons);
    EXPECT_EQ(0xFFFF'FFB0u, flow(0).bytes);
    EXPECT_EQ(0x41u, queue_->fast[0].bytes);
}

TEST_F(Queue, ByteSumThatWrapsEndsTheFlow) {
    with_plugin();
    make();
    update(key_of(1), {.end = 100, .bytes = 0xFFFF'FFB0});
    update(key_of(1), {.end = 101, .bytes = 0x1000});
    EXPECT_EQ(std::vector<int32_t>{REMOVAL_ACTIVE}, plugin_.reasons);
    EXPECT_EQ(0xFFFF'FFB0u, flow(0).bytes);
}

// ---- Removing ----

TEST_F(Queue, RemovingAnEmptySlotIsReportedAndChangesNothing) {
    make();
    update(key_of(1), {.end = 100});
    EXPECT_EQ("Invalid record: 5\n", messages_of([this] { queue_remove_record(queue_, 5, 3); }));
    EXPECT_TRUE(taken().empty());
    EXPECT_EQ(0u, queue_->counters.removed_flows());
    EXPECT_EQ(1u, queue_->record_count);
}

TEST_F(Queue, RemovedSlotIsEmpty) {
    make();
    update(key_of(1), {.end = 100, .bytes = 40});
    queue_remove_record(queue_, 0, REMOVAL_FORCED);
    EXPECT_EQ(0, queue_->keys[0]);
    EXPECT_EQ(0u, queue_->fast[0].packets());
    EXPECT_EQ(0u, queue_->fast[0].bytes);
    EXPECT_EQ(0u, queue_->record_count);
}

TEST_F(Queue, OneshotOutputsARecordThatIsNotInTheQueue) {
    with_plugin();
    make();
    packet_buffer packet = make_packet({.end = 100, .bytes = 77});
    queue_remove_record_oneshot(queue_, &packet.record(), REMOVAL_INACTIVE);
    ASSERT_EQ(1u, taken().size());
    EXPECT_EQ(77u, flow(0).bytes);
    EXPECT_EQ(1u, queue_->counters.removed_flows());
    EXPECT_EQ(std::vector<int32_t>{REMOVAL_INACTIVE}, plugin_.reasons);
}

TEST_F(Queue, OutputWaitsWhileTheFinalStorageIsFull) {
    storage_count_ = 8;
    make();
    for (uint64_t n = 0; n < 8; ++n) {
        packet_buffer packet = make_packet({.end = n});
        queue_remove_record_oneshot(queue_, &packet.record(), REMOVAL_FORCED);
    }
    std::atomic<bool> came_back = false;
    std::thread ninth([&] {
        packet_buffer packet = make_packet({.end = 8});
        queue_remove_record_oneshot(queue_, &packet.record(), REMOVAL_FORCED);
        came_back = true;
    });
    std::this_thread::sleep_for(60ms);
    EXPECT_FALSE(came_back);
    std::vector<uint64_t> ends;
    while (ends.size() < 9) {
        if (const void* record = temporal_storage_get(storage_, 10))
            ends.push_back(static_cast<const flow_record*>(record)->end);
    }
    ninth.join();
    EXPECT_EQ((std::vector<uint64_t>{0, 1, 2, 3, 4, 5, 6, 7, 8}), ends);
}

// ---- Statistics ----

TEST_F(Queue, CountsPacketsBytesAndFlows) {
    make();
    update(key_of(1), {.end = 100, .bytes = 40});
    update(key_of(2), {.end = 100, .bytes = 60});
    update(key_of(2), {.end = 99, .bytes = 1});
    EXPECT_EQ(3u, queue_->tally.packets);
    EXPECT_EQ(101u, queue_->tally.bytes);
    EXPECT_EQ(1u, queue_->counters.removed_flows());
    EXPECT_EQ(1u, queue_->counters.collided_flows());
}

// ---- Process plugins ----

TEST_F(Queue, PacketMarkedForExportLeavesAtOnce) {
    with_plugin();
    make();
    packet_buffer packet = make_packet({.end = 100, .bytes = 40});
    packet.record().export_flag = 1;
    queue_update(queue_, &packet.record(), key_of(1));
    EXPECT_EQ("r3 ", plugin_.calls);
    EXPECT_EQ(1u, taken().size());
    EXPECT_EQ(0u, queue_->record_count);
    EXPECT_EQ(1u, queue_->tally.packets);
}

TEST_F(Queue, PluginSeesAFlowFromItsFirstPacketToItsEnd) {
    with_plugin();
    make();
    update(key_of(1), {.end = 100});
    update(key_of(1), {.end = 101});
    queue_remove_record(queue_, 0, REMOVAL_INACTIVE);
    EXPECT_EQ("c u r1 ", plugin_.calls);
}

TEST_F(Queue, PluginSeesTheCountersWithThePacketInThem) {
    with_plugin();
    make();
    update(key_of(1), {.end = 100, .bytes = 40, .flags = 1});
    update(key_of(1), {.end = 101, .bytes = 60, .flags = 2});
    EXPECT_EQ(2u, plugin_.seen.packets);
    EXPECT_EQ(100u, plugin_.seen.bytes);
    EXPECT_EQ(101u, plugin_.seen.end);
    EXPECT_EQ(3u, plugin_.seen.tcpflags);
}

TEST_F(Queue, PluginMayHaveANewFlowExportedAtOnce) {
    with_plugin();
    plugin_.exports_on_create = true;
    make();
    update(key_of(1), {.end = 100});
    EXPECT_EQ("c r3 ", plugin_.calls);
    EXPECT_EQ(1u, taken().size());
    EXPECT_EQ(0u, queue_->record_count);
    EXPECT_EQ(0, queue_->keys[0]);
}

TEST_F(Queue, PluginMayHaveAnOldFlowExported) {
    with_plugin();
    plugin_.exports_on_update = true;
    make();
    update(key_of(1), {.end = 100});
    update(key_of(1), {.end = 101});
    EXPECT_EQ("c u r3 ", plugin_.calls);
    ASSERT_EQ(1u, taken().size());
    EXPECT_EQ(2u, flow(0).packets);
    EXPECT_EQ(0u, queue_->record_count);
}

TEST_F(Queue, VictimIsReleasedBeforeTheNewFlowIsCreated) {
    with_plugin();
    make();
    for (uint64_t n = 0; n < 8; ++n)
        update(key_of(n), {.end = 100});
    plugin_.calls.clear();
    update(key_of(8), {.end = 100});
    EXPECT_EQ("r2 c ", plugin_.calls);
}

TEST_F(Queue, PluginsAreCalledInTheirOrder) {
    with_plugin();
    with_plugin();
    make();
    update(key_of(1), {.end = 100});
    EXPECT_EQ((std::vector<uint32_t>{0, 1}), plugin_.order);
}

// ---- The lock ----

TEST_F(Queue, UpdateYieldsOnceWhenTheRemoverAsked) {
    make();
    queue_->yield_wanted = 1;
    update(key_of(1), {.end = 100});
    EXPECT_EQ(0u, queue_->yield_wanted);
}

TEST_F(Queue, UpdateLetsGoOfTheLock) {
    make();
    update(key_of(1), {.end = 100});
    queue_->lock.lock();
    queue_->lock.unlock();
}

TEST_F(Queue, IsMadeEmptyWithTheScanAtItsTop) {
    size_exponent_ = 8;
    make();
    EXPECT_EQ(256u, queue_->size);
    EXPECT_EQ(248u, queue_->bucket_mask);
    EXPECT_EQ(255, queue_->scan_cursor);
    EXPECT_EQ(0u, queue_->record_count);
}

}  // namespace
