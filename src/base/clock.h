// The clock functions of service.h, and the units that go with them. All time that the program
// sees comes through these functions.
#pragma once

#include <cstdint>

#include "kestrelexp/service.h"

namespace kestrel {

inline constexpr uint64_t ns_per_second = 1'000'000'000;
inline constexpr uint64_t ns_per_ms = 1'000'000;
inline constexpr uint64_t ns_per_us = 1'000;

// A driver of time. Its functions may be called from any thread.
struct clock_source {
    uint64_t (*wall_ns)();    // ns since the Unix epoch, in whole microseconds
    uint64_t (*uptime_ns)();  // ns, never running backwards
    // Returns when so many ns of its time have passed or a stop is requested; null: the system's.
    void (*sleep_ns)(uint64_t ns) = nullptr;
    bool is_replay = false;  // what timer_is_replay tells
};

// Puts another driver in place of the system's clocks (a replay that runs on the time of its
// packets, a test that makes time jump); null brings the system's back. The driver is borrowed
// until it is replaced. The start-up time is kept: see timer_startup_time_update.
void set_clock_source(const clock_source* source);

// The system's own uptime, in a replay as well: for how long the program itself waited.
uint64_t system_uptime_ns();
// The system's own time (s since the epoch), in a replay as well: for whoever looks at the program.
uint64_t system_wall_s();

// Blocks the calling thread for so many ns, or until the program is asked to stop (base/stop.h).
// Signals as such are handled meanwhile and do not shorten the sleep.
void sleep_unless_stopped(uint64_t ns);

}  // namespace kestrel
