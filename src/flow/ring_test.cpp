// Tests of the ring between threads: what it says, when it waits, what it hands over.
#include "flow/ring.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "kestrelexp/service.h"
#include "tests/support/lifelong.h"

namespace {

using namespace kestrel;
using kestrel_test::keep;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

class TemporalStorage : public testing::Test {
  protected:
    void TearDown() override { verbose_level = -1; }

    static temporal_storage* make(uint32_t count) {
        return keep(temporal_storage_init(count, sizeof(uint64_t), nullptr, "test"));
    }
    static void put(temporal_storage* ring, uint64_t value) {
        std::memcpy(temporal_storage_reserve(ring), &value, sizeof value);
        temporal_storage_put(ring);
    }
    // The value of the next record, -1 when none came.
    static int64_t get(temporal_storage* ring, int timeout_ms = 0) {
        const void* slot = temporal_storage_get(ring, timeout_ms);
        int64_t value = -1;
        if (slot)
            std::memcpy(&value, slot, sizeof value);
        return value;
    }
    static std::string messages_of_init(uint32_t count, uint32_t slot_size, uint64_t* made) {
        testing::internal::CaptureStderr();
        *made =
            keep(temporal_storage_init(count, slot_size, nullptr, "final-records"))->producer.count;
        return testing::internal::GetCapturedStderr();
    }
};

// ---- Making one ----

TEST_F(TemporalStorage, CountOfZeroBecomes1024) {
    uint64_t made = 0;
    EXPECT_EQ("temporal storage too small, increasing to 1024\n", messages_of_init(0, 88, &made));
    EXPECT_EQ(1024u, made);
}

TEST_F(TemporalStorage, CountOfTwoMillionBecomesTwoToTheTwentieth) {
    uint64_t made = 0;
    EXPECT_EQ("temporal storage too large, decreasing to 2^20\n",
              messages_of_init(2'000'000, 8, &made));
    EXPECT_EQ(1'048'576u, made);
}

TEST_F(TemporalStorage, LargestCountIsTakenAsItIs) {
    uint64_t made = 0;
    EXPECT_EQ("", messages_of_init(1'048'576, 8, &made));
    EXPECT_EQ(1'048'576u, made);
}

TEST_F(TemporalStorage, SmallCountsAreNotRaised) {
    uint64_t made = 0;
    EXPECT_EQ("", messages_of_init(1, 88, &made));
    EXPECT_EQ(1u, made);
}

TEST_F(TemporalStorage, TellsItsSizeAtLevelZero) {
    verbose_level = 0;
    uint64_t made = 0;
    EXPECT_EQ("VERBOSE: 0:Temporal storage init: 4096 of 98 (mem: 392 KiB) final-records\n",
              messages_of_init(4096, 98, &made));
}

TEST_F(TemporalStorage, TellsTheSizeOfACountThatWasCut) {
    verbose_level = 0;
    uint64_t made = 0;
    EXPECT_EQ(
        "temporal storage too large, decreasing to 2^20\n"
        "VERBOSE: 0:Temporal storage init: 1048576 of 96 (mem: 98304 KiB) final-records\n",
        messages_of_init(0xFFFF'FFFF, 96, &made));
}

// ---- Handing over ----

TEST_F(TemporalStorage, SlotsStartZeroed) {
    temporal_storage* ring = make(8);
    uint64_t value = 1;
    std::memcpy(&value, temporal_storage_current(ring), sizeof value);
    EXPECT_EQ(0u, value);
}

TEST_F(TemporalStorage, PutReturnsTheNextSlot) {
    temporal_storage* ring = make(8);
    void* first = temporal_storage_current(ring);
    void* second = temporal_storage_put(ring);
    EXPECT_NE(first, second);
    EXPECT_EQ(second, temporal_storage_current(ring));
}

TEST_F(TemporalStorage, ConsumerReadsInTheProducersPlace) {
    temporal_storage* ring = make(8);
    const void* slot = temporal_storage_current(ring);
    temporal_storage_put(ring);
    EXPECT_EQ(slot, temporal_storage_get(ring, 0));
}

TEST_F(TemporalStorage, PutBlockCopiesOneSlot) {
    temporal_storage* ring = keep(temporal_storage_init(8, 3, nullptr, "test"));
    temporal_storage_put_block(ring, "abcdef");
    const char* slot = static_cast<const char*>(temporal_storage_get(ring, 0));
    EXPECT_EQ(0, std::memcmp("abc\0", slot, 4));
}

TEST_F(TemporalStorage, RecordsComeInOrderAroundTheRing) {
    temporal_storage* ring = make(16);
    for (uint64_t n = 0; n < 100; ++n) {
        put(ring, n);
        ASSERT_EQ(static_cast<int64_t>(n), get(ring));
    }
}

TEST_F(TemporalStorage, TwoRingsShareNothing) {
    temporal_storage* one = make(8);
    temporal_storage* other = make(8);
    put(one, 1);
    EXPECT_EQ(-1, get(other));
    EXPECT_EQ(1, get(one));
}

TEST_F(TemporalStorage, RingsOfFewerThanEightSlotsDeliver) {
    for (uint32_t count = 1; count < 8; ++count) {
        temporal_storage* ring = make(count);
        for (uint64_t n = 0; n < 20; ++n) {
            put(ring, n);
            ASSERT_EQ(static_cast<int64_t>(n), get(ring)) << count;
            ASSERT_EQ(-1, get(ring)) << count;
        }
    }
}

TEST_F(TemporalStorage, PeekShowsWhatALaterGetReturns) {
    temporal_storage* ring = make(64);
    for (uint64_t n = 0; n < 9; ++n)  // the ninth announces the first eight
        put(ring, n);
    const void* first = temporal_storage_get(ring, 0);
    const void* third = storage_peek(*ring, 2);
    EXPECT_NE(nullptr, first);
    EXPECT_NE(nullptr, temporal_storage_get(ring, 0));
    EXPECT_EQ(third, temporal_storage_get(ring, 0));
    EXPECT_EQ(nullptr, storage_peek(*ring, 6));
}

TEST_F(TemporalStorage, CountsWhatWasCommittedAndTaken) {
    temporal_storage* ring = make(16);
    put(ring, 1);
    put(ring, 2);
    EXPECT_EQ(2u, storage_committed(*ring));
    EXPECT_EQ(0u, storage_taken(*ring));
    get(ring);
    EXPECT_EQ(1u, storage_taken(*ring));
}

// ---- Waiting ----

TEST_F(TemporalStorage, GetWithoutAnyRecordComesBackAfterTheTimeout) {
    temporal_storage* ring = make(1024);
    const auto before = steady::now();
    EXPECT_EQ(-1, get(ring, 50));
    EXPECT_LE(50ms, steady::now() - before + 1ms);
}

TEST_F(TemporalStorage, LoneRecordComesAfterTheTimeout) {
    temporal_storage* ring = make(1024);
    put(ring, 7);
    const auto before = steady::now();
    EXPECT_EQ(7, get(ring, 50));
    const auto waited = steady::now() - before + 1ms;
    EXPECT_LE(50ms, waited);
    EXPECT_GT(1s, waited);
}

TEST_F(TemporalStorage, WholeBatchComesAtOnce) {
    temporal_storage* ring = make(80);
    for (uint64_t n = 0; n < 11; ++n)  // a batch of ten, and the put that announces it
        put(ring, n);
    const auto before = steady::now();
    for (int64_t n = 0; n < 10; ++n)
        ASSERT_EQ(n, get(ring, 10'000));
    EXPECT_GT(5s, steady::now() - before);
}

TEST_F(TemporalStorage, GetWithoutLimitWaitsForABatch) {
    temporal_storage* ring = make(16);
    std::thread producer([ring] {
        std::this_thread::sleep_for(50ms);
        for (uint64_t n = 0; n < 3; ++n)
            put(ring, n);
    });
    EXPECT_EQ(0, get(ring, -1));
    EXPECT_EQ(1, get(ring, -1));
    producer.join();
}

// The pipe says how often the consumer is woken: once per batch, counted from what it has.
TEST_F(TemporalStorage, BatchIsCountedFromWhatATimeoutTook) {
    temporal_storage* ring = make(80);  // a batch is ten
    for (uint64_t n = 0; n < 5; ++n)
        put(ring, n);
    ASSERT_EQ(0, get(ring, 10));
    for (uint64_t n = 5; n < 15; ++n)
        put(ring, n);
    int announced_bytes = -1;
    ASSERT_EQ(0, ioctl(ring->consumer.notify_read, FIONREAD, &announced_bytes));
    EXPECT_EQ(0, announced_bytes);
    put(ring, 15);
    ASSERT_EQ(0, ioctl(ring->consumer.notify_read, FIONREAD, &announced_bytes));
    EXPECT_EQ(8, announced_bytes);
}

class FullRing : public TemporalStorage {
  protected:
    static constexpr uint32_t count = 32;  // a batch is four

    void SetUp() override {
        ring_ = make(count);
        for (uint64_t n = 0; n < count; ++n)
            put(ring_, n);
    }
    // Starts a thread that calls once and notes that it came back.
    void start(void* (*call)(temporal_storage*)) {
        producer_ = std::thread([this, call] {
            call(ring_);
            came_back_ = true;
        });
    }
    bool came_back_within(std::chrono::milliseconds limit) {
        const auto until = steady::now() + limit;
        while (!came_back_ && steady::now() < until)
            std::this_thread::sleep_for(1ms);
        return came_back_;
    }
    void TearDown() override {
        for (uint32_t n = 0; n < count; ++n)
            get(ring_);
        if (producer_.joinable())
            producer_.join();
        TemporalStorage::TearDown();
    }

    temporal_storage* ring_ = nullptr;
    std::thread producer_;
    std::atomic<bool> came_back_ = false;
};

TEST_F(FullRing, PutWaitsForACreditedBatch) {
    start(temporal_storage_put);
    EXPECT_FALSE(came_back_within(60ms));
    // The first batch is released by the get that takes the fifth record, and credited with it.
    for (int64_t n = 0; n < 4; ++n)
        ASSERT_EQ(n, get(ring_));
    EXPECT_FALSE(came_back_within(60ms));
    ASSERT_EQ(4, get(ring_));
    EXPECT_TRUE(came_back_within(10s));
}

TEST_F(FullRing, ReserveWaitsForACreditedBatch) {
    start(temporal_storage_reserve);
    EXPECT_FALSE(came_back_within(60ms));
    for (int64_t n = 0; n < 5; ++n)
        ASSERT_EQ(n, get(ring_));
    EXPECT_TRUE(came_back_within(10s));
}

TEST_F(FullRing, TheWaitsOfProducersAreCountedWithTheirTime) {
    const auto value = [this](ring_metric metric) { return ring_->counters.value(metric); };
    EXPECT_EQ(0u, value(ring_metric::waits));
    start(temporal_storage_reserve);
    EXPECT_FALSE(came_back_within(60ms));
    EXPECT_EQ(1u, value(ring_metric::waits));
    for (int64_t n = 0; n < 5; ++n)
        ASSERT_EQ(n, get(ring_));
    EXPECT_TRUE(came_back_within(10s));
    EXPECT_EQ(1u, value(ring_metric::waits));
    EXPECT_LE(50'000u, value(ring_metric::wait_us));
}

// The time of a wait shows while it lasts.
TEST_F(FullRing, AWaitIsLookedAfterUntilItsWatchHasEnough) {
    unsigned looks = 0;
    const auto before = steady::now();
    EXPECT_EQ(
        nullptr,
        storage_reserve(
            *ring_, [](void* context) { return ++*static_cast<unsigned*>(context) < 3; }, &looks));
    EXPECT_EQ(3u, looks);
    EXPECT_LE(700ms, steady::now() - before);
    EXPECT_EQ(1u, ring_->counters.value(ring_metric::waits));
    EXPECT_LE(700'000u, ring_->counters.value(ring_metric::wait_us));
}

TEST_F(FullRing, AWatchedWaitEndsWithACreditedBatch) {
    static temporal_storage* ring;
    ring = ring_;
    const auto take_a_batch = [](void*) {
        for (int64_t n = 0; n < 5; ++n)
            EXPECT_EQ(n, get(ring));
        return true;
    };
    void* const oldest = temporal_storage_current(ring_);
    EXPECT_EQ(oldest, storage_reserve(*ring_, take_a_batch, nullptr));
}

TEST_F(FullRing, FillIsShown) {
    storage_show(*ring_);
    EXPECT_EQ(ring_->producer.count, ring_->counters.value(ring_metric::slots));
    EXPECT_EQ(ring_->producer.count, ring_->counters.value(ring_metric::used_slots));
    ASSERT_EQ(0, get(ring_));
    ASSERT_EQ(1, get(ring_));
    storage_show(*ring_);
    EXPECT_EQ(ring_->producer.count - 2, ring_->counters.value(ring_metric::used_slots));
}

// All credits are spent, so the current slot is the oldest one again.
TEST_F(FullRing, CurrentSlotIsTheOldestRecord) {
    const void* oldest = temporal_storage_current(ring_);
    EXPECT_EQ(oldest, temporal_storage_get(ring_, 0));
}

}  // namespace
