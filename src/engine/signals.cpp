// The signal handler: interrupts become an orderly shutdown, a periodic alarm notices jumps of the
// wall clock. Runs on the main thread only; stores flags and writes messages to standard error,
// which allocates nothing.
#include "engine/signals.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

#include "base/clock.h"
#include "base/log.h"
#include "base/packet_clock.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/program.h"

namespace kestrel {

std::atomic<int32_t> exit_requested = 0;
std::atomic<uint64_t> next_alarm_time = 0;

namespace {

constexpr unsigned alarm_period_s = 5;
constexpr uint64_t clock_jump_s = 61;

// Handler and record loop run on one thread.
volatile std::sig_atomic_t is_report_due = 0;

// The remover reads and clears the flag on its own thread; nothing else is published with it.
void request_flush() {
    std::atomic_ref<uint32_t>(queue_force_flush).store(1, std::memory_order_relaxed);
}

void on_interrupt() {
    if (exit_requested.load(std::memory_order_relaxed) != 0) {
        verbose_msg(-1, "Ok. Ok. Exiting now. You will be DOOMED for it");
        // Not exit(): the handler may have interrupted anything, and nothing is buffered. A
        // daemon's message goes to syslog all the same, as nobody is left to report it later.
        _exit(exit_second_interrupt);
    }
    is_report_due = 1;
    if (std::atomic_ref(syslog_on).load(std::memory_order_relaxed) == 0)
        report_interrupt();
    // In this order: whoever sees the exit flag with the flush flag clear takes the flush as done.
    request_flush();
    exit_requested.store(1, std::memory_order_relaxed);
}

// The time of a replay runs faster than any clock; its jumps are not the clock's.
void on_alarm() {
    if (packet_clock_runs())
        return;
    const uint64_t now_s = timer_get_sec();
    const uint64_t due_s = next_alarm_time.load(std::memory_order_relaxed);
    if (due_s != 0) {
        const uint64_t away_s = now_s > due_s ? now_s - due_s : due_s - now_s;
        if (away_s >= clock_jump_s)
            request_flush();
    }
    next_alarm_time.store(now_s + alarm_period_s, std::memory_order_relaxed);
}

}  // namespace

void report_interrupt() {
    if (is_report_due == 0)
        return;
    is_report_due = 0;
    verbose_msg(-1, "CTRL-C detected, will exit as soon as possible");
}

}  // namespace kestrel

void signal_handler(int signal) {
    const int interrupted_errno = errno;
    if (signal == SIGINT || signal == SIGQUIT)
        kestrel::on_interrupt();
    else if (signal == SIGALRM)
        kestrel::on_alarm();

    alarm(kestrel::alarm_period_s);
    (void)::signal(SIGPIPE, SIG_IGN);  // signal() fails for bad numbers only
    for (const int handled : {SIGINT, SIGQUIT, SIGALRM})
        (void)::signal(handled, signal_handler);
    errno = interrupted_errno;
}
