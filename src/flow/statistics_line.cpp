#include "flow/statistics_line.h"

#include <sys/resource.h>

#include <utility>

#include "base/log.h"

namespace kestrel {
namespace {

constexpr uint64_t interval_s = 10;

uint64_t process_cpu_ms() {
    rusage usage{};
    (void)getrusage(RUSAGE_SELF, &usage);  // fails only for a bad first argument
    const auto ms = [](const timeval& time) {
        return static_cast<uint64_t>(time.tv_sec) * 1000 +
               static_cast<uint64_t>(time.tv_usec) / 1000;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

void add(cache_report& report, const cache_counters& cache) {
    report.packets += cache.value(cache_metric::records);
    report.bytes += cache.value(cache_metric::bytes);
    report.flows += cache.removed_flows();
    report.collisions += cache.collided_flows();
    report.record_count += static_cast<uint32_t>(cache.value(cache_metric::flows));
}

}  // namespace

void print_report(const cache_report& report, uint64_t now_s, uint64_t elapsed_s, uint64_t cpu_ms) {
    verbose_msg(0, "now: %14lu", now_s);
    verbose_msg(0,
                "stat -     packets/s,       bytes/s,       flows,   queue,    collisions/s,"
                "         cpu,       invalid");
    // flows and invalid are counts of the interval, the others are per second.
    verbose_msg(0, "stat%14lu,%14lu,%14lu,%8u,%14lu,%14lu,%14lu", report.packets / elapsed_s,
                report.bytes / elapsed_s, report.flows, report.record_count,
                report.collisions / elapsed_s, cpu_ms * 100 / (elapsed_s * 1000), report.invalid);
}

void statistics_line::start(uint64_t now_s) {
    const std::scoped_lock locked(lock_);
    last_s_ = now_s;
    next_s_.store(now_s + interval_s, std::memory_order_relaxed);
}

void statistics_line::postpone(uint64_t now_s) {
    const std::scoped_lock locked(lock_);
    next_s_.store(now_s + interval_s, std::memory_order_relaxed);
}

void statistics_line::print_if_due(uint64_t now_s) {
    if (now_s <= next_s_.load(std::memory_order_relaxed)) [[likely]]
        return;
    const std::scoped_lock locked(lock_);
    if (now_s <= next_s_.load(std::memory_order_relaxed))
        return;  // somebody else was first
    const uint64_t elapsed_s = now_s > last_s_ ? now_s - last_s_ : 1;
    const uint64_t cpu_ms = process_cpu_ms();
    print_report(take_locked(), now_s, elapsed_s, cpu_ms - last_cpu_ms_);
    last_s_ = now_s;
    next_s_.store(now_s + interval_s, std::memory_order_relaxed);
    last_cpu_ms_ = cpu_ms;
}

cache_report statistics_line::take() {
    const std::scoped_lock locked(lock_);
    return take_locked();
}

cache_report statistics_line::take_locked() {
    cache_report now{};
    for (const cache_counters& cache : caches_)
        add(now, cache);
    const cache_report before = std::exchange(told_, now);
    return {
        .packets = now.packets - before.packets,
        .bytes = now.bytes - before.bytes,
        .flows = now.flows - before.flows,
        .collisions = now.collisions - before.collisions,
        .invalid = 0,
        .record_count = now.record_count,
    };
}

}  // namespace kestrel
