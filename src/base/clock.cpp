// The clocks: wall clock, monotonic clock, and the start-up time that ties them together. Any
// thread reads them; only sleep_unless_stopped blocks.
#include "base/clock.h"

#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>

#include "base/stop.h"

namespace kestrel {

uint64_t system_uptime_ns() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail with this clock
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t system_wall_s() {
    timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);  // cannot fail with this clock
    return static_cast<uint64_t>(now.tv_sec);
}

namespace {

uint64_t system_wall_ns() {
    timeval now;
    (void)gettimeofday(&now, nullptr);  // cannot fail with a valid pointer
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second +
           static_cast<uint64_t>(now.tv_usec) * ns_per_us;
}

void system_sleep_ns(uint64_t ns) {
    // A signal that brings the request ends a wait; one that comes right before it is seen a little
    // later. Up to a moment, not for a while: the alarm every five seconds would restart a while.
    constexpr uint64_t longest_wait_ns = 100 * ns_per_ms;
    uint64_t now_ns = system_uptime_ns();
    for (const uint64_t end_ns = now_ns + ns; now_ns < end_ns && !stop_requested();
         now_ns = system_uptime_ns()) {
        const uint64_t until_ns = std::min(end_ns, now_ns + longest_wait_ns);
        const timespec until = {static_cast<time_t>(until_ns / ns_per_second),
                                static_cast<long>(until_ns % ns_per_second)};
        // Whatever ends it, the loop looks at the clock and the request again.
        (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    }
}

constexpr clock_source system_clocks = {system_wall_ns, system_uptime_ns, system_sleep_ns};

// Written by whoever installs a driver, read by all threads; release and acquire, so that a driver
// is seen complete.
std::atomic<const clock_source*> current_clocks = &system_clocks;

// Wall-clock ns at which the monotonic clock was zero; 0 = not computed yet. Any thread may fill it
// in; relaxed, since it is one word on its own and two threads at most compute the same estimate.
std::atomic<uint64_t> startup_time_ns = 0;

const clock_source& clocks() {
    return *current_clocks.load(std::memory_order_acquire);
}

}  // namespace

void set_clock_source(const clock_source* source) {
    current_clocks.store(source ? source : &system_clocks, std::memory_order_release);
}

void sleep_unless_stopped(uint64_t ns) {
    const auto sleep = clocks().sleep_ns;
    (sleep ? sleep : system_sleep_ns)(ns);
}

}  // namespace kestrel

using namespace kestrel;

uint64_t timer_get_uptime(void) {
    return clocks().uptime_ns();
}

uint64_t timer_get_nsec(void) {
    return clocks().wall_ns();
}

uint64_t timer_get_sec(void) {
    return timer_get_nsec() / ns_per_second;
}

uint64_t timer_get_rnd(void) {
    return timer_get_nsec() % ns_per_second / ns_per_us;
}

int32_t timer_is_replay(void) {
    return clocks().is_replay ? 1 : 0;
}

uint64_t timer_startup_time_update(void) {
    const uint64_t now_ns = timer_get_nsec();
    const uint64_t uptime_ns = timer_get_uptime();
    startup_time_ns.store(now_ns - uptime_ns, std::memory_order_relaxed);
    return uptime_ns;
}

uint64_t timer_get_startup_time(void) {
    if (startup_time_ns.load(std::memory_order_relaxed) == 0)
        timer_startup_time_update();
    return startup_time_ns.load(std::memory_order_relaxed);
}

uint64_t timer_get_startup_time32(void) {
    return timer_get_startup_time();
}
