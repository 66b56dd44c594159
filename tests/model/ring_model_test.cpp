#include "tests/model/ring_model.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

#include "flow/ring.h"
#include "kestrelexp/service.h"
#include "tests/support/lifelong.h"

namespace {

using namespace kestrel_model;
using kestrel_test::keep;
using namespace std::chrono_literals;

// A slot holds its sequence number in bytes that follow from it, so that any mix of two records, or
// a record of a neighbouring slot, shows.
void fill(void* slot, uint64_t sequence, size_t size) {
    auto* bytes = static_cast<uint8_t*>(slot);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(sequence >> (8 * (i % 4)));
}

bool holds(const void* slot, uint64_t sequence, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(slot);
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != static_cast<uint8_t>(sequence >> (8 * (i % 4))))
            return false;
    }
    return true;
}

// Both rings through the same operations on one thread.
class two_rings {
  public:
    two_rings(uint32_t count, uint32_t slot_size, uint64_t seed)
        : slot_size_(slot_size),
          model_(count),
          real_(keep(temporal_storage_init(count, slot_size, nullptr, "test"))),
          random_(seed) {}

    void step() {
        // Leaning to one side for a while lets the ring run full and empty.
        if (random_() % 200 == 0)
            lean_ = 20 + random_() % 61;
        if (random_() % 100 < lean_)
            produce();
        else
            consume();
    }

    uint64_t times_full() const { return times_full_; }
    uint64_t times_empty() const { return times_empty_; }

  private:
    void produce() {
        if (!model_.can_put()) {
            ++times_full_;
            ASSERT_EQ(0u, real_->producer.credits);
            return;
        }
        void* slot = temporal_storage_current(real_);
        ASSERT_EQ(real_->buffer + model_.current_slot() * real_->producer.slot_size, slot);
        if (random_() % 2) {
            ASSERT_EQ(slot, temporal_storage_reserve(real_));
            model_.reserve();
            ASSERT_EQ(model_.credits(), real_->producer.credits);
        }
        void* next;
        if (random_() % 4) {
            fill(slot, sequence_, slot_size_);
            next = temporal_storage_put(real_);
        } else {
            std::vector<uint8_t> copy(slot_size_);
            fill(copy.data(), sequence_, slot_size_);
            next = temporal_storage_put_block(real_, copy.data());
        }
        model_.put(sequence_++);
        ASSERT_EQ(next, temporal_storage_current(real_));
        ASSERT_EQ(model_.credits(), real_->producer.credits);
    }

    void consume() {
        const std::optional<uint64_t> expected = model_.get();
        const void* slot = temporal_storage_get(real_, 0);
        ASSERT_EQ(expected.has_value(), slot != nullptr) << "after " << sequence_;
        if (!expected) {
            ++times_empty_;
            return;
        }
        ASSERT_EQ(real_->buffer + model_.slot_in_hand() * real_->producer.slot_size, slot);
        ASSERT_TRUE(holds(slot, *expected, slot_size_)) << *expected;
    }

    uint32_t slot_size_;
    ring_model model_;
    temporal_storage* real_;
    std::mt19937_64 random_;
    uint64_t lean_ = 50;
    uint64_t sequence_ = 0;
    uint64_t times_full_ = 0;
    uint64_t times_empty_ = 0;
};

TEST(RingAgainstModel, HandsOverTheSameSlotsForTheSameCredits) {
    constexpr uint32_t slot_sizes[] = {1, 3, 8, 13, 88, 96, 101, 184};
    for (uint32_t count = 1; count <= 64; ++count) {
        two_rings both(count, slot_sizes[count % std::size(slot_sizes)], count);
        for (int n = 0; n < 20'000; ++n) {
            both.step();
            if (HasFatalFailure())
                FAIL() << "count " << count << " operation " << n;
        }
        EXPECT_LT(20u, both.times_full()) << count;
        EXPECT_LT(20u, both.times_empty()) << count;
    }
}

// ---- Two threads ----

struct stressed_record {
    uint64_t sequence;
    uint64_t filler[3];
    uint64_t checksum;
};

uint64_t mix(uint64_t x) {
    x ^= x >> 33;
    x *= 0xFF51'AFD7'ED55'8CCDu;
    return x ^ (x >> 29);
}

void write_record(void* slot, uint64_t sequence) {
    auto* record = static_cast<stressed_record*>(slot);
    record->sequence = sequence;
    uint64_t sum = sequence;
    for (uint64_t& word : record->filler) {
        word = mix(sequence + sum);
        sum ^= word;
    }
    record->checksum = sum;
}

bool is_whole(const stressed_record& record) {
    uint64_t sum = record.sequence;
    for (const uint64_t word : record.filler) {
        if (word != mix(record.sequence + sum))
            return false;
        sum ^= word;
    }
    return record.checksum == sum;
}

void stall_now_and_then(std::mt19937_64& random) {
    const uint64_t draw = random() % 400'000;
    if (draw == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    else if (draw < 8)
        std::this_thread::yield();
}

void produce(temporal_storage* ring, uint64_t records, uint64_t seed) {
    std::mt19937_64 random(seed);
    for (uint64_t n = 0; n < records; ++n) {
        write_record(temporal_storage_reserve(ring), n);
        temporal_storage_put(ring);
        stall_now_and_then(random);
    }
}

// Takes until all have come; what comes must be next, and whole.
void consume_all(temporal_storage* ring, uint64_t records, int timeout_ms) {
    std::mt19937_64 random(7);
    for (uint64_t expected = 0; expected < records;) {
        const auto* record =
            static_cast<const stressed_record*>(temporal_storage_get(ring, timeout_ms));
        if (!record)
            continue;
        ASSERT_EQ(expected, record->sequence);
        ASSERT_TRUE(is_whole(*record)) << expected;
        ++expected;
        stall_now_and_then(random);
    }
    EXPECT_EQ(nullptr, temporal_storage_get(ring, 20));
}

struct stress {
    uint32_t count;
    uint64_t records;
};

void PrintTo(const stress& s, std::ostream* out) {
    *out << s.records << " records through " << s.count << " slots";
}

class RingStress : public testing::TestWithParam<stress> {
  protected:
    void SetUp() override { verbose_level = -2; }
    void TearDown() override { verbose_level = -1; }
};

TEST_P(RingStress, LosesAndDoublesNothingBetweenTwoThreads) {
    const auto [count, records] = GetParam();
    temporal_storage* ring =
        keep(temporal_storage_init(count, sizeof(stressed_record), nullptr, "stress"));
    std::thread producer(produce, ring, records, count);
    consume_all(ring, records, 1);
    producer.join();
}

// A ring of one slot hands over one record a time-out: its only slot is announced by a put that
// cannot come before the slot is free.
INSTANTIATE_TEST_SUITE_P(Counts, RingStress,
                         testing::Values(stress{1, 200}, stress{2, 50'000}, stress{7, 100'000},
                                         stress{64, 850'000}, stress{1024, 4'000'000},
                                         stress{65'536, 5'000'000}));

// ---- A consumer that does not move on ----

class StalledConsumer : public testing::Test {
  protected:
    static constexpr uint32_t count = 16;

    void SetUp() override {
        ring_ = keep(temporal_storage_init(count, sizeof(stressed_record), nullptr, "stalled"));
        // One lap ahead of the interesting part: the consumer holds record 0 in its hand.
        for (uint64_t n = 0; n < count; ++n) {
            write_record(temporal_storage_reserve(ring_), n);
            temporal_storage_put(ring_);
        }
        in_hand_ = static_cast<const stressed_record*>(temporal_storage_get(ring_, 0));
        ASSERT_NE(nullptr, in_hand_);
    }

    temporal_storage* ring_ = nullptr;
    const stressed_record* in_hand_ = nullptr;
};

TEST_F(StalledConsumer, KeepsWhatItReadsFromAProducerThatReserves) {
    std::atomic<bool> reserved = false;
    std::thread producer([&] {
        for (uint64_t n = count; n < 3 * count; ++n) {
            void* slot = temporal_storage_reserve(ring_);
            reserved = true;
            write_record(slot, n);
            temporal_storage_put(ring_);
        }
    });
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(reserved);
    EXPECT_EQ(0u, in_hand_->sequence);
    EXPECT_TRUE(is_whole(*in_hand_));
    for (uint64_t expected = 1; expected < 3 * count;) {
        const auto* record = static_cast<const stressed_record*>(temporal_storage_get(ring_, 10));
        if (!record)
            continue;
        ASSERT_EQ(expected++, record->sequence);
        ASSERT_TRUE(is_whole(*record));
    }
    producer.join();
}

// Whoever fills the current slot without asking writes over the oldest record: all credits are
// spent, and only the put waits.
TEST_F(StalledConsumer, MayLoseWhatItReadsToAProducerThatDoesNotReserve) {
    write_record(temporal_storage_current(ring_), 99);
    EXPECT_EQ(99u, in_hand_->sequence);
}

}  // namespace
