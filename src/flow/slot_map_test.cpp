#include "flow/slot_map.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrel {
namespace {

TEST(SlotMap, TellsTheSlotsThatHoldAFlow) {
    slot_map map(4096);
    map.add(0);
    map.add(63);
    map.add(64);
    map.add(4095);
    EXPECT_TRUE(map.holds_flow(0));
    EXPECT_FALSE(map.holds_flow(1));
    EXPECT_FALSE(map.holds_flow(62));
    EXPECT_TRUE(map.holds_flow(63));
    EXPECT_TRUE(map.holds_flow(64));
    EXPECT_FALSE(map.holds_flow(65));
    EXPECT_TRUE(map.holds_flow(4095));
    map.remove(63);
    EXPECT_FALSE(map.holds_flow(63));
    EXPECT_TRUE(map.holds_flow(64));
}

TEST(SlotMap, ABlockIsEmptyOnceItsLastFlowLeaves) {
    slot_map map(2048);
    EXPECT_TRUE(map.is_block_empty(1500));
    map.add(1024);
    map.add(2047);
    EXPECT_TRUE(map.is_block_empty(1023));
    EXPECT_FALSE(map.is_block_empty(1500));
    map.remove(1024);
    EXPECT_FALSE(map.is_block_empty(1500));
    map.remove(2047);
    EXPECT_TRUE(map.is_block_empty(1500));
}

TEST(SlotMap, GoesBackFromFlowToFlow) {
    slot_map map(8192);
    for (const uint32_t slot : {0, 1, 63, 64, 1023, 1024, 5000, 8191})
        map.add(slot);
    std::vector<int32_t> slots;
    for (int32_t slot = map.last_flow(8191); slot >= 0; slot = map.last_flow(slot - 1))
        slots.push_back(slot);
    EXPECT_EQ(slots, (std::vector<int32_t>{8191, 5000, 1024, 1023, 64, 63, 1, 0}));
    EXPECT_EQ(map.last_flow(8190), 5000);
    EXPECT_EQ(map.last_flow(5000), 5000);
    EXPECT_EQ(map.last_flow(4999), 1024);
    EXPECT_EQ(map.last_flow(-1), -1);
    map.remove(1);
    map.remove(0);
    EXPECT_EQ(map.last_flow(62), -1);
}

// The smallest cache has less than a word of slots.
TEST(SlotMap, ServesThirtyTwoSlots) {
    slot_map map(32);
    map.add(31);
    EXPECT_TRUE(map.holds_flow(31));
    EXPECT_FALSE(map.is_block_empty(0));
}

}  // namespace
}  // namespace kestrel
