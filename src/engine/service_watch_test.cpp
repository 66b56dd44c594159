#include "engine/service_watch.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

constexpr uint64_t second = 1'000'000'000;

TEST(service_watch, is_ready_once_both_ends_live) {
    service_watch watch(0);
    EXPECT_EQ(service_word::none, watch.round(false, true, 1 * second));
    EXPECT_EQ(service_word::none, watch.round(false, false, 2 * second));
    EXPECT_EQ(service_word::is_ready, watch.round(true, false, 3 * second));
    EXPECT_EQ(service_word::none, watch.round(true, true, 4 * second));
    EXPECT_EQ(service_word::none, watch.round(true, true, 400 * second));
}

TEST(service_watch, says_so_twice_in_the_time_that_the_manager_waits) {
    service_watch watch(60 * second);
    EXPECT_EQ(service_word::is_ready, watch.round(true, true, 100 * second));
    EXPECT_EQ(service_word::none, watch.round(true, true, 130 * second - 1));
    EXPECT_EQ(service_word::is_alive, watch.round(true, true, 130 * second));
    EXPECT_EQ(service_word::none, watch.round(true, true, 159 * second));
    EXPECT_EQ(service_word::is_alive, watch.round(true, true, 161 * second));
}

TEST(service_watch, is_silent_while_the_reader_hangs) {
    service_watch watch(2 * second);
    (void)watch.round(true, true, 1 * second);
    for (uint64_t time = 2; time < 100; ++time)
        EXPECT_EQ(service_word::none, watch.round(false, true, time * second));
    EXPECT_EQ(service_word::is_alive, watch.round(true, false, 100 * second));
}

TEST(service_watch, is_silent_while_the_record_loop_hangs) {
    service_watch watch(2 * second);
    (void)watch.round(true, true, 1 * second);
    for (uint64_t time = 2; time < 100; ++time)
        EXPECT_EQ(service_word::none, watch.round(true, false, time * second));
    EXPECT_EQ(service_word::is_alive, watch.round(false, true, 100 * second));
}

TEST(service_watch, a_sign_counts_for_one_word_only) {
    service_watch watch(2 * second);
    (void)watch.round(true, true, 1 * second);
    EXPECT_EQ(service_word::none, watch.round(true, true, 1 * second + 1));
    EXPECT_EQ(service_word::is_alive, watch.round(false, false, 2 * second));
    EXPECT_EQ(service_word::none, watch.round(false, false, 3 * second));
}

}  // namespace
}  // namespace kestrel
