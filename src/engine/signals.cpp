// The signal handler: interrupts become an orderly shutdown, a periodic alarm notices jumps of the
// wall clock. Runs on the main thread only; stores flags and writes messages to standard error,
// which allocates nothing.
#include "engine/signals.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "base/clock.h"
#include "base/handled_signals.h"
#include "base/log.h"
#include "base/service_notify.h"
#include "base/stop.h"
#include "flow/flush_request.h"
#include "kestrelexp/program.h"

namespace kestrel {

std::atomic<int32_t> exit_requested = 0;
std::atomic<uint64_t> next_alarm_time = 0;

namespace {

constexpr unsigned alarm_period_s = 5;
constexpr uint64_t clock_jump_s = 61;

// Set once by the main thread, read by the handler on it.
std::atomic<const engine*> running_engine = nullptr;

// Handler and record loop run on one thread.
volatile std::sig_atomic_t is_report_due = 0;
volatile std::sig_atomic_t is_jump_due = 0;

void stop_engine() {
    if (const engine* const running = running_engine.load(std::memory_order_relaxed))
        running->stop();
    else
        request_flush();
}

void on_interrupt() {
    if (exit_requested.load(std::memory_order_relaxed) != 0) {
        report_interrupt();
        verbose_msg(-1, "Ok. Ok. Exiting now. You will be DOOMED for it");
        // Not exit(): the handler may have interrupted anything, and nothing is buffered. A
        // daemon's messages go to syslog all the same, as nobody is left to report them later.
        _exit(exit_second_interrupt);
    }
    is_report_due = 1;
    if (std::atomic_ref(syslog_on).load(std::memory_order_relaxed) == 0)
        report_interrupt();
    // In this order: whoever sees the exit flag with no flush pending takes the flush as done.
    stop_engine();
    exit_requested.store(1, std::memory_order_relaxed);
    request_stop();
    // The manager learns of the end in any case.
    (void)service_notify("STOPPING=1\nSTATUS=Interrupted: sending the last flows");
}

void on_clock_jump() {
    if (const engine* const running = running_engine.load(std::memory_order_relaxed))
        running->follow_clock_jump();
    else
        flush_for_clock_jump();
}

void on_alarm() {
    const uint64_t now_s = timer_get_sec();
    const uint64_t due_s = next_alarm_time.load(std::memory_order_relaxed);
    if (due_s != 0) {
        const uint64_t away_s = now_s > due_s ? now_s - due_s : due_s - now_s;
        if (away_s >= clock_jump_s)
            on_clock_jump();
    }
    next_alarm_time.store(now_s + alarm_period_s, std::memory_order_relaxed);
}

bool is_interrupt(int signal) {
    return std::ranges::find(interrupt_signals, signal) != std::end(interrupt_signals);
}

}  // namespace

void pass_signals_to(const engine& running) {
    running_engine.store(&running, std::memory_order_relaxed);
}

void flush_for_clock_jump() {
    is_jump_due = 1;
    request_flush();
}

bool is_clock_jump_pending() {
    return is_jump_due != 0;
}

void take_clock_jump() {
    is_jump_due = 0;
}

void report_interrupt() {
    if (is_report_due == 0)
        return;
    is_report_due = 0;
    verbose_msg(-1, "CTRL-C detected, will exit as soon as possible");
}

}  // namespace kestrel

void signal_handler(int signal) {
    const int interrupted_errno = errno;
    if (kestrel::is_interrupt(signal))
        kestrel::on_interrupt();
    else if (signal == SIGALRM)
        kestrel::on_alarm();

    alarm(kestrel::alarm_period_s);
    for (const int ignored : kestrel::ignored_signals)
        (void)::signal(ignored, SIG_IGN);  // signal() fails for bad numbers only
    for (const int handled : kestrel::handled_signals)
        (void)::signal(handled, signal_handler);
    errno = interrupted_errno;
}
