#include "base/packet_clock.h"

#include <gtest/gtest.h>

#include <string>

#include "base/clock.h"
#include "tests/support/child.h"

namespace {

using namespace kestrel;

constexpr uint64_t start = 631'152'000'000'000'000;  // 1990-01-01
constexpr uint64_t minute = 60'000'000'000;

// The clock is put in place for the whole process, so each test has one of its own.
std::string in_child(void (*body)()) {
    return kestrel_test::run_in_child([body] {
        body();
        if (testing::Test::HasFailure())
            std::fputs("failed", stderr);
    });
}

#define CHECK_IN_CHILD(body) EXPECT_EQ("", in_child([] body))

TEST(PacketClock, StandsAtTheFirstPacketWithAMinuteOfUptime) {
    CHECK_IN_CHILD({
        EXPECT_EQ(0, timer_is_replay());
        packet_clock_start(start);
        EXPECT_EQ(1, timer_is_replay());
        EXPECT_EQ(start, timer_get_nsec());
        EXPECT_EQ(631'152'000u, timer_get_sec());
        EXPECT_EQ(minute, timer_get_uptime());
        EXPECT_EQ(start - minute, timer_get_startup_time());
    });
}

TEST(PacketClock, GoesOnWhenItIsToldTo) {
    CHECK_IN_CHILD({
        packet_clock_start(start);
        packet_clock_advance(start + 5'000'000'007);
        EXPECT_EQ(start + 5'000'000'007, timer_get_nsec());
        EXPECT_EQ(65'000'000'007u, timer_get_uptime());
        EXPECT_EQ(start - minute, timer_get_startup_time());
    });
}

TEST(PacketClock, NeverRunsBackwards) {
    CHECK_IN_CHILD({
        packet_clock_start(start);
        packet_clock_advance(start + 2);
        packet_clock_advance(start + 1);
        packet_clock_advance(0);
        EXPECT_EQ(start + 2, timer_get_nsec());
    });
}

TEST(PacketClock, UptimeDoesNotBeginBeforeTheEpoch) {
    CHECK_IN_CHILD({
        packet_clock_start(7'000'000'000);
        EXPECT_EQ(7'000'000'000u, timer_get_uptime());
        EXPECT_EQ(0u, timer_get_startup_time());
        packet_clock_advance(9'000'000'000);
        EXPECT_EQ(9'000'000'000u, timer_get_uptime());
        EXPECT_EQ(0u, timer_get_startup_time());
    });
}

TEST(PacketClock, MayStandAtTheEpoch) {
    CHECK_IN_CHILD({
        packet_clock_start(0);
        EXPECT_EQ(0u, timer_get_nsec());
        EXPECT_EQ(0u, timer_get_uptime());
        EXPECT_EQ(0u, timer_get_startup_time());
    });
}

TEST(PacketClock, ReachesTheEndOfItsRange) {
    CHECK_IN_CHILD({
        packet_clock_start(INT64_MAX);
        EXPECT_EQ(static_cast<uint64_t>(INT64_MAX), timer_get_nsec());
        EXPECT_EQ(minute, timer_get_uptime());
    });
}

}  // namespace
