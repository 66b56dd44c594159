// Tests of ageing, flushing and statistics. Hours pass in no time: the rules are handed the time.
#include "flow/ageing.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "flow/flow_cache_update.h"
#include "flow/flush_request.h"
#include "tests/support/queue_fixture.h"
#include "tests/support/source_tree.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;
using namespace std::chrono_literals;

constexpr uint64_t second = 1'000'000'000;
constexpr uint64_t idle_at =
    100 + 1 * second + 1;  // the clock when a flow that ended at 100 is idle

class Remover : public queue_fixture {
  protected:
    void set_now(uint64_t now) { queue_->now = now; }
    // One flow each in the slots from 0 on.
    void start_flows(uint64_t count) {
        for (uint64_t n = 0; n < count; ++n)
            update(key_of(n), {.end = 100});
    }
    size_t flows_left() const { return queue_->record_count; }
};

// ---- The idle scan of the packet path ----

TEST_F(Remover, EachPacketLooksAtOneSlotFromTheTop) {
    make();
    queue_->scan_cursor = -1;  // the flow below is made without any scan
    update(key_of(1, 24), {.end = 100});
    queue_->scan_cursor = 25;
    set_now(idle_at);
    queue_try_to_remove(queue_);  // slot 25
    EXPECT_EQ(1u, flows_left());
    queue_try_to_remove(queue_);  // slot 24
    EXPECT_EQ(0u, flows_left());
    EXPECT_EQ(23, queue_->scan_cursor);
}

TEST_F(Remover, IdleFlowLeavesForItsReason) {
    with_plugin();
    make();
    update(key_of(1, 8), {.end = 100});
    set_now(idle_at);
    queue_->scan_cursor = 8;
    queue_try_to_remove(queue_);
    EXPECT_EQ(std::vector<int32_t>{REMOVAL_INACTIVE}, plugin_.reasons);
}

TEST_F(Remover, FlowAtTheInactiveTimeoutStays) {
    make();
    update(key_of(1, 8), {.end = 100});
    set_now(idle_at - 1);
    queue_->scan_cursor = 8;
    queue_try_to_remove(queue_);
    EXPECT_EQ(1u, flows_left());
}

TEST_F(Remover, FlowThatEndsAheadOfTheClockStays) {
    make();
    update(key_of(1, 8), {.end = 5 * second});
    set_now(1 * second);
    queue_->scan_cursor = 8;
    queue_try_to_remove(queue_);
    EXPECT_EQ(1u, flows_left());
}

TEST_F(Remover, SlotZeroIsNeverScanned) {
    make();
    update(key_of(0), {.end = 100});
    set_now(idle_at + 3600 * second);
    for (int step = 0; step < 100; ++step)
        queue_try_to_remove(queue_);
    for (int pass = 0; pass < 10; ++pass)
        queue_restart_scan(*queue_, queue_->now);
    EXPECT_EQ(1u, flows_left());
}

TEST_F(Remover, PacketMayEndItsOwnIdleFlow) {
    make();
    update(key_of(1, 24), {.end = 100});
    set_now(idle_at);
    queue_->scan_cursor = 24;
    update(key_of(1, 24), {.end = idle_at});
    EXPECT_EQ(1u, taken().size());
    EXPECT_EQ(1u, queue_->fast[24].packets());
}

// ---- Restarting the scan ----

TEST_F(Remover, RestartPutsTheScanBackToTheTop) {
    make();
    queue_->scan_cursor = -1;
    queue_restart_scan(*queue_, 100);
    EXPECT_EQ(31, queue_->scan_cursor);
    EXPECT_EQ(0u, queue_->forced_checks);
}

TEST_F(Remover, UnfinishedScanIsFinishedByTheNextPacket) {
    make();
    start_flows(4);
    set_now(idle_at);
    queue_restart_scan(*queue_, idle_at);
    EXPECT_EQ(4u, flows_left());
    update(key_of(1, 24), {.end = idle_at});
    EXPECT_EQ(2u, flows_left());  // slot 0, and the new one
    EXPECT_EQ(0u, queue_->forced_checks);
    EXPECT_EQ(-1, queue_->scan_cursor);
}

TEST_F(Remover, ThirdUnfinishedScanIsFinishedByForce) {
    make();
    start_flows(4);
    queue_restart_scan(*queue_, idle_at);
    queue_restart_scan(*queue_, idle_at);
    EXPECT_EQ(4u, flows_left());
    queue_restart_scan(*queue_, idle_at);
    EXPECT_EQ(1u, flows_left());
    EXPECT_EQ(0u, queue_->forced_checks);
    EXPECT_EQ(31, queue_->scan_cursor);
}

TEST_F(Remover, ForcedScanWalksDownwards) {
    make();
    start_flows(4);
    for (int pass = 0; pass < 3; ++pass)
        queue_restart_scan(*queue_, idle_at);
    ASSERT_EQ(3u, taken().size());
    EXPECT_EQ(0, queue_->keys[1]);
    EXPECT_EQ(key_of(0), queue_->keys[0]);
}

TEST_F(Remover, ForcedScanFindsFlowsFarApartFromTheTop) {
    size_exponent_ = 13;
    make();
    queue_->scan_cursor = -1;  // the flows below are made without any scan
    const uint32_t slots[] = {0, 8, 1016, 1024, 4096, 8184};
    for (uint32_t n = 0; n < 6; ++n)
        update(key_of(1, slots[n]), {.end = 100, .source = slots[n]});
    queue_->scan_cursor = 8191;
    for (int pass = 0; pass < 3; ++pass)
        queue_restart_scan(*queue_, idle_at);
    ASSERT_EQ(5u, taken().size());
    for (uint32_t n = 0; n < 5; ++n)
        EXPECT_EQ(slots[5 - n], flow(n).ipv4.srcipv4);
    EXPECT_EQ(1u, flows_left());  // slot 0 is never scanned
    EXPECT_EQ(8191, queue_->scan_cursor);
}

TEST_F(Remover, ForcedScanLeavesABlockWhoseFlowsLeftBefore) {
    size_exponent_ = 13;
    make();
    queue_->scan_cursor = -1;
    update(key_of(1, 4096), {.end = 100});
    queue_remove_record(queue_, 4096, REMOVAL_FORCED);
    update(key_of(2, 4096), {.end = 100});
    queue_->scan_cursor = 8191;
    for (int pass = 0; pass < 3; ++pass)
        queue_restart_scan(*queue_, idle_at);
    EXPECT_EQ(2u, taken().size());
    EXPECT_EQ(0u, flows_left());
}

TEST_F(Remover, ForcedScanIsAnnouncedAtLevelZero) {
    make();
    verbose_level = 0;
    EXPECT_EQ("VERBOSE: 0:Force queue check (maybe input driver is blocking)\n",
              messages_of([this] {
                  for (int pass = 0; pass < 3; ++pass)
                      queue_restart_scan(*queue_, 100);
              }));
}

// ---- Flushing ----

TEST_F(Remover, FlushTakesEveryFlowInSlotOrder) {
    with_plugin();
    make();
    update(key_of(1, 16), {.end = 103});
    update(key_of(1, 0), {.end = 101});
    update(key_of(1, 8), {.end = 102});
    EXPECT_EQ("Flushing queue\nQueue flushed. 3 records out.\n",
              messages_of([this] { queue_flush(queue_); }));
    ASSERT_EQ(3u, taken().size());
    EXPECT_EQ(101u, flow(0).end);
    EXPECT_EQ(102u, flow(1).end);
    EXPECT_EQ(103u, flow(2).end);
    EXPECT_EQ((std::vector<int32_t>{REMOVAL_FORCED, REMOVAL_FORCED, REMOVAL_FORCED}),
              plugin_.reasons);
}

TEST_F(Remover, FlushOfAnEmptyQueueTellsOfNoRecords) {
    make();
    EXPECT_EQ("Flushing queue\nQueue flushed. 0 records out.\n",
              messages_of([this] { queue_flush(queue_); }));
}

TEST_F(Remover, NoFlushIsServedWithoutARequest) {
    make();
    start_flows(3);
    EXPECT_FALSE(queue_serve_flush_request(*queue_));
    EXPECT_EQ(3u, flows_left());
}

// A flush request, served on a thread of its own as the remover serves it, or right here.
class FlushRequest : public Remover {
  protected:
    void SetUp() override { verbose_level = -2; }
    void TearDown() override {
        queue_force_flush = 0;
        Remover::TearDown();
    }
    static void request() { std::atomic_ref(queue_force_flush).store(1); }
    static bool wanted() { return std::atomic_ref(queue_force_flush).load() != 0; }

    void start_serving() {
        server_ = std::thread([this] {
            served_ = queue_serve_flush_request(*queue_);
            done_ = true;
        });
    }
    // Takes until n records have come.
    void take(size_t n) {
        while (n > 0)
            n -= temporal_storage_get(storage_, 10) != nullptr;
    }

    std::thread server_;
    std::atomic<bool> done_ = false;
    bool served_ = false;
};

TEST_F(FlushRequest, OnAnEmptyQueueIsServedAtOnce) {
    make();
    request();
    EXPECT_TRUE(queue_serve_flush_request(*queue_));
    EXPECT_FALSE(wanted());
}

TEST_F(FlushRequest, IsClearedAsSoonAsTheFlushIsDoneWhoeverConsumes) {
    make();
    start_flows(8);
    request();
    EXPECT_TRUE(queue_serve_flush_request(*queue_));
    EXPECT_FALSE(wanted());
    EXPECT_FALSE(is_flush_pending());
    EXPECT_EQ(8u, taken().size());
}

TEST_F(FlushRequest, LeavesWordOfHowFarItCame) {
    make();
    start_flows(3);
    EXPECT_EQ(0u, storage_flushed(*storage_));
    request();
    EXPECT_TRUE(queue_serve_flush_request(*queue_));
    EXPECT_EQ(3u, storage_flushed(*storage_));
    update(key_of(1, 16), {.end = 500});
    queue_remove_record(queue_, 16, REMOVAL_ACTIVE);
    EXPECT_EQ(3u, storage_flushed(*storage_));
}

TEST_F(FlushRequest, HoldsNothingButZeroAndOne) {
    storage_count_ = 4;
    make();
    start_flows(8);  // more than the ring holds, so the flush waits for room
    request_flush();
    start_serving();
    while (storage_committed(*storage_) < 4)
        std::this_thread::yield();
    EXPECT_EQ(1u, std::atomic_ref(queue_force_flush).load());
    take(8);
    server_.join();
    EXPECT_EQ(0u, std::atomic_ref(queue_force_flush).load());
}

TEST_F(FlushRequest, OneThatComesMeanwhileGetsAFlushOfItsOwn) {
    verbose_level = -1;
    storage_count_ = 4;
    make();
    start_flows(8);
    request_flush();
    testing::internal::CaptureStderr();
    start_serving();
    while (storage_committed(*storage_) < 4)
        std::this_thread::yield();
    request_flush();
    take(8);
    server_.join();
    EXPECT_EQ(
        "Flushing queue\nQueue flushed. 8 records out.\n"
        "Flushing queue\nQueue flushed. 0 records out.\n",
        testing::internal::GetCapturedStderr());
    EXPECT_FALSE(is_flush_pending());
}

TEST_F(FlushRequest, ProducerThatGoesOnDoesNotHoldItUp) {
    make();
    start_flows(4);
    request();
    std::atomic<bool> stop = false;
    std::atomic<uint64_t> produced = 0;
    std::thread producer([&] {
        for (uint64_t n = 0; !stop; ++n) {
            packet_buffer packet = make_packet({.end = n});
            packet.record().export_flag = 1;  // goes right through to the final storage
            queue_update(queue_, &packet.record(), key_of(1, 24));
            ++produced;
        }
    });
    while (produced < 100)
        std::this_thread::yield();
    start_serving();
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (!done_ && std::chrono::steady_clock::now() < until)
        (void)temporal_storage_get(storage_, 1);
    EXPECT_TRUE(done_);
    stop = true;
    while (temporal_storage_get(storage_, 50)) {
    }
    producer.join();
    server_.join();
}

// ---- Statistics ----

TEST_F(Remover, AReportTellsWhatHasComeSinceTheLastOne) {
    make();
    start_flows(3);
    update(key_of(2), {.end = 99});
    const cache_report report = queue_->statistics.take();
    EXPECT_EQ(4u, report.packets);
    EXPECT_EQ(160u, report.bytes);
    EXPECT_EQ(3u, report.record_count);
    EXPECT_EQ(1u, report.flows);
    EXPECT_EQ(1u, report.collisions);
    const cache_report next = queue_->statistics.take();
    EXPECT_EQ(0u, next.packets);
    EXPECT_EQ(0u, next.bytes);
    EXPECT_EQ(0u, next.flows);
    EXPECT_EQ(0u, next.collisions);
    EXPECT_EQ(3u, next.record_count);
}

TEST_F(Remover, ReportIsPerSecondButForFlowsAndInvalid) {
    verbose_level = 0;
    const cache_report report{.packets = 1'234'567,
                              .bytes = 987'654'321,
                              .flows = 4321,
                              .collisions = 105,
                              .invalid = 0,
                              .record_count = 65'536};
    EXPECT_EQ(
        "VERBOSE: 0:now:     1700000000\n"
        "VERBOSE: 0:stat -     packets/s,       bytes/s,       flows,   queue,    collisions/s,"
        "         cpu,       invalid\n"
        "VERBOSE: 0:stat        123456,      98765432,          4321,   65536,            10,"
        "            25,             0\n",
        messages_of([&] { print_report(report, 1'700'000'000, 10, 2'599); }));
}

// Its table has a row "| `column` | meaning |" for each name of the heading, in that order.
TEST_F(Remover, OperationsPageExplainsEveryColumn) {
    verbose_level = 0;
    std::istringstream said(messages_of([] { print_report({}, 1'700'000'000, 10, 0); }));
    const std::string before = "VERBOSE: 0:stat -";
    std::string heading;
    while (std::getline(said, heading) && !heading.starts_with(before))
        continue;
    std::istringstream names(heading.substr(before.size()));
    std::string expected;
    for (std::string name; std::getline(names >> std::ws, name, ',');)
        expected += name + "\n";

    std::ifstream page(kestrel_test::in_source_tree("docs/operations.md"));
    std::string on_page;
    bool in_table = false;
    for (std::string line; std::getline(page, line);) {
        in_table = line.starts_with("| Column |") || (in_table && line.starts_with("|"));
        const std::string start = "| `";
        if (in_table && line.starts_with(start))
            on_page +=
                line.substr(start.size(), line.find('`', start.size()) - start.size()) + "\n";
    }
    EXPECT_EQ(expected, on_page);
}

TEST_F(Remover, ReportIsNotShownByDefault) {
    EXPECT_EQ("", messages_of([] { print_report({}, 1'700'000'000, 10, 0); }));
}

}  // namespace
