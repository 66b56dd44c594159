// The packet clock is two words: where it stands, and where its uptime began.
#include "base/packet_clock.h"

#include <algorithm>
#include <atomic>

#include "base/clock.h"

namespace kestrel {
namespace {

constexpr uint64_t uptime_at_start_ns = 60 * ns_per_second;

// The main thread stores, any thread loads. Each is one word on its own, so relaxed.
std::atomic<uint64_t> current_ns = 0;
std::atomic<uint64_t> start_ns = 0;

uint64_t wall_ns() {
    return current_ns.load(std::memory_order_relaxed);
}

uint64_t uptime_ns() {
    return wall_ns() - start_ns.load(std::memory_order_relaxed);
}

constexpr clock_source packet_clock = {wall_ns, uptime_ns, nullptr, true};

}  // namespace

void packet_clock_start(uint64_t first_ns) {
    start_ns.store(first_ns - std::min(first_ns, uptime_at_start_ns), std::memory_order_relaxed);
    current_ns.store(first_ns, std::memory_order_relaxed);
    set_clock_source(&packet_clock);
    (void)timer_startup_time_update();  // the uptime that it returns is known here
}

void packet_clock_advance(uint64_t now_ns) {
    if (now_ns > wall_ns())
        current_ns.store(now_ns, std::memory_order_relaxed);
}

}  // namespace kestrel
