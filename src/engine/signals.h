// What the signal handler tells the rest of the program. The handler itself (signal_handler in
// kestrelexp/program.h) runs on the main thread only: every other thread has its signals blocked.
#pragma once

#include <atomic>
#include <cstdint>

#include "engine/engine.h"

namespace kestrel {

// Set by the first interrupt (SIGINT, SIGQUIT or SIGTERM), read by the record loop on the same
// thread. Relaxed accesses suffice: no data hangs on it.
extern std::atomic<int32_t> exit_requested;

// When the next SIGALRM is due, seconds since the epoch; 0 until the first one. Handler only.
extern std::atomic<uint64_t> next_alarm_time;

// From now on interrupts and jumps of the clock are passed on to this engine. Until then they ask
// for a flush.
void pass_signals_to(const engine& running);

// What engines on the system's clock do when it jumped: every flow is flushed, and once the record
// loop has exported them it computes the start-up time anew (see take_clock_jump).
void flush_for_clock_jump();

// Whether the clock has jumped since the last call; on the main thread.
bool is_clock_jump_pending();
void take_clock_jump();

// Reports the first interrupt where the handler could not: syslog() allocates and locks, so in a
// daemon the record loop does it. Does nothing when there is nothing to report.
void report_interrupt();

static_assert(std::atomic<int32_t>::is_always_lock_free && sizeof exit_requested == 4);
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<const engine*>::is_always_lock_free);

}  // namespace kestrel
