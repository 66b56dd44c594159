#include "base/clock.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "base/stop.h"

namespace {

using namespace kestrel;

uint64_t fake_wall = 0;
uint64_t fake_uptime = 0;
constexpr clock_source fake_clocks = {[] { return fake_wall; }, [] { return fake_uptime; }};

class Clock : public testing::Test {
  protected:
    void TearDown() override {
        set_clock_source(nullptr);
        timer_startup_time_update();
    }

    static void drive(uint64_t wall_ns, uint64_t uptime_ns) {
        fake_wall = wall_ns;
        fake_uptime = uptime_ns;
        set_clock_source(&fake_clocks);
    }
};

uint64_t now_ns(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

TEST_F(Clock, UptimeIsTheMonotonicClock) {
    const uint64_t before = now_ns(CLOCK_MONOTONIC);
    const uint64_t uptime = timer_get_uptime();
    EXPECT_LE(before, uptime);
    EXPECT_LE(uptime, now_ns(CLOCK_MONOTONIC));
}

TEST_F(Clock, NsecIsTheWallClockInMicroseconds) {
    const uint64_t before = now_ns(CLOCK_REALTIME) / 1000 * 1000;
    const uint64_t wall = timer_get_nsec();
    EXPECT_LE(before, wall);
    EXPECT_LE(wall, now_ns(CLOCK_REALTIME));
    EXPECT_EQ(0u, wall % 1000);
}

TEST_F(Clock, SecAndRndAreTheTwoPartsOfTheWallClock) {
    drive(1'700'000'000'123'456'000, 5);
    EXPECT_EQ(1'700'000'000u, timer_get_sec());
    EXPECT_EQ(123'456u, timer_get_rnd());
}

TEST_F(Clock, StartupTimeIsWallClockLessUptime) {
    drive(1'700'000'000'000'000'000, 900'000'000'000);
    EXPECT_EQ(900'000'000'000u, timer_startup_time_update());
    EXPECT_EQ(1'699'999'100'000'000'000u, timer_get_startup_time());
    EXPECT_EQ(1'699'999'100'000'000'000u, timer_get_startup_time32());
}

TEST_F(Clock, StartupTimeStaysWhenTheWallClockJumps) {
    drive(1'700'000'000'000'000'000, 900'000'000'000);
    timer_startup_time_update();
    fake_wall += 3'600'000'000'000;
    EXPECT_EQ(1'699'999'100'000'000'000u, timer_get_startup_time());
}

TEST_F(Clock, StartupTimeOfZeroIsComputedAnew) {
    drive(7'000, 7'000);
    timer_startup_time_update();
    fake_wall = 9'000;
    EXPECT_EQ(2'000u, timer_get_startup_time());
}

uint64_t slept_ns = 0;

TEST_F(Clock, DriverSleepsInItsOwnTime) {
    constexpr clock_source sleeping = {[] { return fake_wall; }, [] { return fake_uptime; },
                                       [](uint64_t ns) { slept_ns += ns; }};
    set_clock_source(&sleeping);
    sleep_unless_stopped(60'000'000'000);
    EXPECT_EQ(60'000'000'000u, slept_ns);
}

TEST_F(Clock, DriverWithoutSleepLeavesItToTheSystem) {
    drive(0, 0);
    const uint64_t before = now_ns(CLOCK_MONOTONIC);
    sleep_unless_stopped(2'000'000);
    EXPECT_LE(before + 2'000'000, now_ns(CLOCK_MONOTONIC));
}

TEST_F(Clock, SignalsDoNotShortenASleep) {
    struct sigaction ignoring = {}, saved;
    ignoring.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignoring, &saved);
    const uint64_t before = now_ns(CLOCK_MONOTONIC);
    std::thread sleeper([] { sleep_unless_stopped(100'000'000); });
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        pthread_kill(sleeper.native_handle(), SIGUSR1);
    }
    sleeper.join();
    EXPECT_LE(before + 100'000'000, now_ns(CLOCK_MONOTONIC));
    sigaction(SIGUSR1, &saved, nullptr);
}

TEST_F(Clock, AStopRequestEndsASleep) {
    const uint64_t before = now_ns(CLOCK_MONOTONIC);
    std::thread sleeper([] { sleep_unless_stopped(60'000'000'000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    request_stop();
    sleeper.join();
    EXPECT_GT(before + 10'000'000'000, now_ns(CLOCK_MONOTONIC));
    sleep_unless_stopped(60'000'000'000);  // nor does another one begin
    EXPECT_GT(before + 10'000'000'000, now_ns(CLOCK_MONOTONIC));
    stop_request = false;
}

TEST_F(Clock, ThreadsMayAskForTheStartupTimeTogether) {
    drive(7'000, 7'000);
    timer_startup_time_update();
    fake_wall = 9'000;
    uint64_t seen = 0;
    std::thread other([&] { seen = timer_get_startup_time(); });
    const uint64_t own = timer_get_startup_time();
    other.join();
    EXPECT_EQ(2'000u, own);
    EXPECT_EQ(2'000u, seen);
}

}  // namespace
