#include "engine/housekeeper.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "base/clock.h"
#include "base/heartbeat.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/service_notify.h"
#include "base/thread.h"
#include "engine/loss_report.h"
#include "engine/service_watch.h"

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
    service_watch watch;
    bool owes_ready = false;  // the manager had no room for the word
    uint64_t beats = 0;       // of the record loop, at the round before
};

bool is_remover_held_up(const flow_queue& queue, uint64_t now_ns) {
    const uint64_t refreshed_ns = queue.now.load(std::memory_order_relaxed);
    return now_ns > refreshed_ns && now_ns - refreshed_ns > held_up_ns;
}

bool has_record_loop_shown(house& self) {
    const uint64_t beats = record_loop_heartbeat.beats();
    return std::exchange(self.beats, beats) != beats || record_loop_heartbeat.is_waiting();
}

// It may wait for room while finished flows wait for the record loop, whose beats count then.
bool is_reader_excused(const flow_switch& sw) {
    const temporal_storage& final_records = *sw.queue->final_storage;
    const uint64_t taken = storage_taken(final_records);
    const uint64_t waiting = storage_committed(final_records) - taken;
    return waiting * 2 >= final_records.producer.count;
}

// Those of all lanes.
bool have_readers_shown(const flow_switch& first) {
    for (const flow_switch* sw = &first; sw; sw = sw->next_lane)
        if (!has_reader_served(*sw) && !is_reader_excused(*sw))
            return false;
    return true;
}

// Until the manager takes it, since it may wait for that for ever.
void say_ready(house& self) {
    char text[96];
    (void)snprintf(text, sizeof text, "READY=1\nMAINPID=%i\nSTATUS=Taking frames, exporting flows",
                   getpid());
    self.owes_ready = !service_notify(text);
}

void tell_manager(house& self) {
    const bool has_reader_shown = have_readers_shown(self.sw);
    const service_word word =
        self.watch.round(has_reader_shown, has_record_loop_shown(self), system_uptime_ns());
    if (word == service_word::is_ready || self.owes_ready)
        say_ready(self);
    else if (word == service_word::is_alive)
        (void)service_notify("WATCHDOG=1");  // one is missed, the next is in time
}

void do_round(house& self) {
    tell_manager(self);
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
    ask_reader(self.sw, count_undelivered);
    for (;;) {
        usleep(round_us);
        do_round(self);
    }
}

}  // namespace

void start_housekeeper(flow_switch& sw) {
    auto* const self =
        make_lifelong<house>(house{sw, final_rings(sw), loss_report(system_uptime_ns()),
                                   service_watch(service_watchdog_ns())});
    if (!start_thread(keep_house, self))
        die(exit_config, "Unable to create housekeeper thread");
}

}  // namespace kestrel
