// The rare roads of the per-packet path, and its entry point for plugins.

#include "flow/flow_cache_update.h"

#include <sched.h>
#include <unistd.h>

#include <cstring>

namespace kestrel {

// Goes from flow to flow; their fast records, far from each other in a large cache, are fetched
// some flows ahead.
[[gnu::noinline]] void queue_finish_scan(flow_queue& queue, uint64_t now) {
    constexpr int flows_ahead = 16;
    int32_t ahead = queue.map.last_flow(queue.scan_cursor);
    const auto fetch_one_ahead = [&] {
        if (ahead < 0)
            return;
        prefetch(queue.fast + ahead);
        ahead = queue.map.last_flow(ahead - 1);
    };
    int32_t slot = ahead;
    for (int n = 0; n < flows_ahead; ++n)
        fetch_one_ahead();
    for (; slot > 0; slot = queue.map.last_flow(slot - 1)) {
        fetch_one_ahead();
        queue_remove_idle(queue, static_cast<uint32_t>(slot), now);
    }
    queue.scan_cursor = -1;
    queue.forced_checks = 0;
}

[[gnu::noinline]] uint32_t queue_make_room(flow_queue& queue, uint32_t start) {
    const unsigned free = ~keys_occupied(queue.keys + start) & bucket_full;
    if (free != 0)
        return start + static_cast<uint32_t>(__builtin_ctz(free));
    const uint32_t victim =
        start + (static_cast<uint32_t>(queue.victim_counter) & (bucket_slots - 1));
    queue.victim_counter += 1;
    queue_remove_record(&queue, victim, REMOVAL_COLLISION);
    return victim;
}

[[gnu::noinline]] void queue_start_flow(flow_queue& queue, uint32_t slot, flow_record& packet,
                                        flow_key key) {
    if (queue.plugin_count != 0) [[unlikely]] {
        for (int32_t i = 0; i < queue.plugin_count; ++i)
            queue.plugins[i].create(queue.plugins[i].instance, &packet);
        if (packet.export_flag != 0) {
            queue_remove_record_oneshot(&queue, &packet, REMOVAL_FORCED);
            return;
        }
    }
    std::memcpy(&queue_record(queue, slot), &packet, queue.record_size);
    fast_record& fast = queue.fast[slot];
    fast.start = packet.start;
    fast.end = packet.end;
    fast.bytes = packet.bytes;
    fast.set(packet.packets, packet.tcpflags);
    queue.record_count += 1;
    queue.map.add(slot);
    queue.keys[slot] = key;
}

[[gnu::noinline]] void queue_update_plugins(flow_queue& queue, uint32_t slot, flow_record& packet) {
    flow_record& flow = queue_refresh_record(queue, slot);
    for (int32_t i = 0; i < queue.plugin_count; ++i)
        queue.plugins[i].update(queue.plugins[i].instance, &flow, &packet);
    if (flow.export_flag != 0)
        queue_remove_record(&queue, slot, REMOVAL_FORCED);
}

namespace {

// Where the record loop takes flows more slowly than this thread finishes them, the lock is free
// for a moment only, and the remover never meets it.
void wait_for_remover(const flow_queue& queue) {
    constexpr int naps = 200;  // longer than those of a waiter
    constexpr useconds_t nap_us = 100;
    for (int nap = 0; nap < naps && queue.yield_wanted.load(std::memory_order_relaxed) == give_way;
         ++nap)
        usleep(nap_us);
}

}  // namespace

[[gnu::noinline]] void queue_yield(flow_queue& queue) {
    if (queue.yield_wanted.load(std::memory_order_relaxed) == give_way)
        wait_for_remover(queue);
    else
        sched_yield();
    queue.yield_wanted.store(no_yield, std::memory_order_relaxed);
}

}  // namespace kestrel

using namespace kestrel;

void queue_update(flow_queue* queue, flow_record* packet, flow_key key) {
    queue->lock.lock();
    queue_update_locked(*queue, *packet, key);
    queue_unlock(*queue);
}

void queue_try_to_remove(flow_queue* queue) {
    queue_scan_step(*queue, queue->now.load(std::memory_order_relaxed));
}
