#include "input/link_state.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

constexpr uint64_t ms = 1'000'000;

link_state attached(int index) {
    link_state state;
    state.attach(index);
    return state;
}

TEST(link_state, is_gone_before_anything_is_known) {
    link_state state;
    EXPECT_TRUE(state.is_gone());
    EXPECT_FALSE(state.is_up());
    EXPECT_EQ(link_change::none, state.note(3, true, 0));
}

TEST(link_state, says_down_once_when_it_lasts) {
    link_state state = attached(3);
    EXPECT_EQ(link_change::none, state.note(3, false, 1000 * ms));
    EXPECT_FALSE(state.is_up());
    EXPECT_EQ(link_change::none, state.pass(1099 * ms));
    EXPECT_EQ(link_change::went_down, state.pass(1100 * ms));
    EXPECT_EQ(link_change::none, state.pass(5000 * ms));
    EXPECT_EQ(link_change::none, state.note(3, false, 6000 * ms));
    EXPECT_EQ(link_change::none, state.pass(7000 * ms));
    EXPECT_EQ(link_change::came_up, state.note(3, true, 8000 * ms));
    EXPECT_TRUE(state.is_up());
    EXPECT_EQ(link_change::none, state.note(3, true, 8001 * ms));
}

TEST(link_state, says_a_short_time_down_when_it_is_over) {
    link_state state = attached(3);
    EXPECT_EQ(link_change::none, state.note(3, false, 10 * ms));
    EXPECT_EQ(link_change::went_down_and_up, state.note(3, true, 11 * ms));
    EXPECT_EQ(link_change::none, state.pass(500 * ms));
}

TEST(link_state, says_nothing_of_a_time_down_that_the_end_follows) {
    link_state state = attached(3);
    EXPECT_EQ(link_change::none, state.note(3, false, 10 * ms));
    state.lose();
    EXPECT_EQ(link_change::none, state.pass(500 * ms));
    EXPECT_TRUE(state.is_gone());
}

TEST(link_state, says_a_second_time_down_anew) {
    link_state state = attached(3);
    (void)state.note(3, false, 0);
    EXPECT_EQ(link_change::went_down, state.pass(100 * ms));
    EXPECT_EQ(link_change::came_up, state.note(3, true, 200 * ms));
    EXPECT_EQ(link_change::none, state.note(3, false, 300 * ms));
    EXPECT_EQ(link_change::none, state.pass(399 * ms));
    EXPECT_EQ(link_change::went_down, state.pass(400 * ms));
}

TEST(link_state, passes_over_other_interfaces_and_begins_anew_with_a_new_index) {
    link_state state = attached(3);
    EXPECT_EQ(link_change::none, state.note(4, false, 0));
    EXPECT_TRUE(state.is_up());
    state.lose();
    state.attach(4);
    EXPECT_TRUE(state.is_up());
    EXPECT_EQ(4, state.index());
    EXPECT_EQ(link_change::none, state.note(3, false, 0));
    EXPECT_EQ(link_change::none, state.note(4, false, 0));
    EXPECT_EQ(link_change::went_down, state.pass(100 * ms));
}

}  // namespace
}  // namespace kestrel
