#include "flow/slot_map.h"

#include <gtest/gtest.h>

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

// The smallest cache has less than a word of slots.
TEST(SlotMap, ServesThirtyTwoSlots) {
    slot_map map(32);
    map.add(31);
    EXPECT_TRUE(map.holds_flow(31));
    EXPECT_FALSE(map.is_block_empty(0));
}

}  // namespace
}  // namespace kestrel
