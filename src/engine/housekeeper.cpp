#include "engine/housekeeper.h"

#include <pthread.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/thread.h"
#include "engine/loss_report.h"

namespace kestrel {
namespace {

constexpr useconds_t round_us = 250'000;
// The remover refreshes the cache's clock every 10 ms unless it waits: for room in the ring of
// finished flows, or for who does. (A replay has no remover, and its clock is that of the cache.)
constexpr uint64_t held_up_ns = ns_per_second;

struct house {
    flow_switch& sw;
    std::vector<temporal_storage*> final_records;
    loss_report losses;
};

bool is_remover_held_up(const flow_queue& queue, uint64_t now_ns) {
    const uint64_t refreshed_ns = queue.now.load(std::memory_order_relaxed);
    return now_ns > refreshed_ns && now_ns - refreshed_ns > held_up_ns;
}

void do_round(house& self) {
    ask_reader(self.sw, count_undelivered);
    for (const temporal_storage* final_records : self.final_records)
        storage_show(*final_records);
    if (const auto* exchange = self.sw.exchange.load(std::memory_order_acquire))
        storage_show(*exchange);
    flow_queue& queue = *self.sw.queue;
    const uint64_t now_ns = timer_get_nsec();
    if (is_remover_held_up(queue, now_ns))
        queue.statistics.print_if_due(now_ns / ns_per_second);
    self.losses.say_if_due(system_uptime_ns());
}

void* keep_house(void* argument) {
    auto& self = *static_cast<house*>(argument);
    (void)pthread_setname_np(pthread_self(), "housekeeper");  // a name for top -H, no more
    for (;;) {
        usleep(round_us);
        do_round(self);
    }
}

}  // namespace

void start_housekeeper(flow_switch& sw) {
    auto* const self =
        make_lifelong<house>(house{sw, final_rings(sw), loss_report(system_uptime_ns())});
    if (!start_thread(keep_house, self))
        die(exit_config, "Unable to create housekeeper thread");
}

}  // namespace kestrel
