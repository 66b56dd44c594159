// Making the flow cache, and the one way out of it. Runs on the switch or the remover thread, under
// the queue's lock; never allocates after start-up.

#include "flow/flow_cache.h"

#include <cstring>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/thread.h"
#include "kestrelexp/service.h"
#include "record/layout.h"

namespace kestrel {
namespace {

template <typename T>
T* slot_array(uint64_t slots, uint64_t bytes_per_slot, const char* directory, const char* name) {
    return static_cast<T*>(big_array(slots * bytes_per_slot, directory, name));
}

void set_size(flow_queue& queue, uint32_t slots) {
    queue.size = slots;
    queue.bucket_mask = slots - bucket_slots;
    queue.scan_cursor = static_cast<int32_t>(slots - 1);
    queue.map = slot_map(slots);
}

}  // namespace

std::vector<flow_queue*> queue_share_out(flow_queue& whole, uint32_t parts) {
    std::vector<flow_queue*> others;
    const uint32_t slots = whole.size / parts;
    for (uint64_t part = 1; part < parts; ++part) {
        auto* queue = others.emplace_back(make_lifelong<flow_queue>());
        queue->now.store(whole.now.load(std::memory_order_relaxed), std::memory_order_relaxed);
        queue->active_timeout = whole.active_timeout;
        queue->inactive_timeout = whole.inactive_timeout;
        queue->plugin_count = whole.plugin_count;
        queue->plugins = whole.plugins;
        queue->data_size = whole.data_size;
        queue->record_size = whole.record_size;
        queue->stride = whole.stride;
        queue->directory = whole.directory;
        queue->sink = whole.sink;
        queue->records = whole.records + part * slots * whole.stride;
        queue->fast = whole.fast + part * slots;
        queue->keys = whole.keys + part * slots;
        set_size(*queue, slots);
        queue->counters = cache_counters(slots);
    }
    set_size(whole, slots);
    whole.counters.set_slots(slots);
    return others;
}

flow_queue* queue_create(int32_t size_exponent, uint64_t active_ns, uint64_t inactive_ns,
                         temporal_storage* final_storage, const char* directory, uint64_t data_size,
                         int32_t plugin_count, process_plugin* plugins) {
    auto* queue = make_lifelong<flow_queue>();
    queue->active_timeout = active_ns;
    queue->inactive_timeout = inactive_ns;
    queue->plugin_count = plugin_count;
    queue->plugins = plugins;
    set_size(*queue, 1u << size_exponent);
    queue->data_size = data_size;
    queue->record_size = FLOW_RECORD_BASE_SIZE + data_size;
    queue->stride = record_stride(queue->record_size);
    queue->directory = directory;
    queue->final_storage = final_storage;
    queue->sink = queue_put_final;
    queue->records = slot_array<uint8_t>(queue->size, queue->stride, directory, "record");
    queue->fast = slot_array<fast_record>(queue->size, sizeof(fast_record), directory, "fast");
    queue->keys = slot_array<flow_key>(queue->size, sizeof(flow_key), directory, "crc");
    queue->counters = cache_counters(queue->size);
    queue->statistics.watch({&queue->counters, 1});
    return queue;
}

flow_queue* queue_init_unaged(int32_t size_exponent, int32_t active_s, int32_t inactive_s,
                              temporal_storage* final_storage, const char* directory,
                              uint64_t data_size, int32_t plugin_count, process_plugin* plugins) {
    flow_queue* queue = queue_create(size_exponent, static_cast<uint64_t>(active_s) * ns_per_second,
                                     static_cast<uint64_t>(inactive_s) * ns_per_second,
                                     final_storage, directory, data_size, plugin_count, plugins);
    queue->now.store(timer_get_nsec(), std::memory_order_relaxed);
    return queue;
}

void queue_put_final(flow_queue& queue, const flow_record& record) {
    // Waits for room: a record that the record loop has not taken is never overwritten.
    void* slot = storage_reserve(*queue.final_storage);
    std::memcpy(slot, &record, queue.record_size);
    storage_commit(*queue.final_storage);
}

}  // namespace kestrel

using namespace kestrel;

flow_queue* queue_init(int32_t size_exponent, int32_t active_s, int32_t inactive_s,
                       temporal_storage* final_storage, const char* directory, uint64_t data_size,
                       int32_t plugin_count, process_plugin* plugins) {
    std::atomic_ref(queue_force_flush).store(0, std::memory_order_relaxed);
    flow_queue* queue = queue_init_unaged(size_exponent, active_s, inactive_s, final_storage,
                                          directory, data_size, plugin_count, plugins);
    if (!start_thread(queue_remover, queue))
        die(exit_queue_thread, "Unable to create queue thread.");
    return queue;
}

void queue_remove_record(flow_queue* queue, uint32_t slot, int32_t reason) {
    if (!occupied(queue->keys[slot])) {
        verbose_msg(-1, "Invalid record: %i", static_cast<int>(slot));
        return;
    }
    queue_remove_record_oneshot(queue, &queue_refresh_record(*queue, slot), reason);
    fast_record& fast = queue->fast[slot];
    fast.bytes = 0;
    fast.packets_and_flags = 0;
    queue->keys[slot] = 0;
    queue->record_count -= 1;
    queue->map.remove(slot);
}

void queue_remove_record_oneshot(flow_queue* queue, flow_record* record, int32_t reason) {
    queue->counters.add_removed(*record, reason);
    for (int32_t i = 0; i < queue->plugin_count; ++i) {
        const process_plugin& plugin = queue->plugins[i];
        plugin.release(plugin.instance, record, reason);
    }
    queue->sink(*queue, *record);
}
