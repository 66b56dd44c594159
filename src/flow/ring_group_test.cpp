// Tests of the look at several rings: whose turn it is, and that nobody is left out.
#include "flow/ring_group.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "tests/support/lifelong.h"

namespace {

using namespace kestrel;
using kestrel_test::keep;
using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

constexpr uint32_t slots = 64;
constexpr uint64_t batch = 8;  // slots that are announced at once: an eighth of them

temporal_storage* make() {
    return keep(temporal_storage_init(slots, sizeof(uint64_t), nullptr, "test"));
}

void put(temporal_storage* ring, uint64_t value, uint64_t count = 1) {
    for (uint64_t n = 0; n < count; ++n) {
        std::memcpy(storage_reserve(*ring), &value, sizeof value);
        storage_commit(*ring);
    }
}

// The value of the next record, -1 when none came.
int64_t get(ring_group& rings, int timeout_ms = 0) {
    const void* slot = rings.get(timeout_ms);
    int64_t value = -1;
    if (slot)
        std::memcpy(&value, slot, sizeof value);
    return value;
}

TEST(RingGroup, GivesABatchFromEachInTurn) {
    temporal_storage* const first = make();
    temporal_storage* const second = make();
    ring_group rings({first, second});
    put(first, 1, 2 * batch + 1);
    put(second, 2, 2 * batch + 1);
    for (const int64_t value : {2, 1, 2, 1})
        for (uint64_t n = 0; n < batch; ++n)
            EXPECT_EQ(value, get(rings, 50));
    EXPECT_EQ(2, get(rings, 50));
    EXPECT_EQ(1, get(rings, 50));
    EXPECT_EQ(-1, get(rings));
}

TEST(RingGroup, GivesWhatWasNotAnnouncedOnceTimeIsUp) {
    temporal_storage* const first = make();
    temporal_storage* const second = make();
    ring_group rings({first, second});
    put(second, 2);
    EXPECT_EQ(2, get(rings, 1));
    EXPECT_EQ(-1, get(rings, 1));
}

// One ring has a batch each time that it is asked for one, so that time is never up.
TEST(RingGroup, ABusyRingDoesNotHideWhatOthersHaveNotAnnounced) {
    temporal_storage* const busy = make();
    temporal_storage* const quiet = make();
    temporal_storage* const quieter = make();
    ring_group rings({busy, quiet, quieter});
    put(quiet, 2);
    put(quieter, 3);
    bool has_quiet_come = false;
    bool has_quieter_come = false;
    put(busy, 1, batch + 1);
    const auto deadline = steady::now() + 10s;
    while (!(has_quiet_come && has_quieter_come) && steady::now() < deadline) {
        const int64_t value = get(rings, 20);
        has_quiet_come |= value == 2;
        has_quieter_come |= value == 3;
        if (value == 1)
            put(busy, 1);
    }
    EXPECT_TRUE(has_quiet_come);
    EXPECT_TRUE(has_quieter_come);
}

}  // namespace
