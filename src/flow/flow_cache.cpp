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

}  // namespace

flow_queue* queue_create(int32_t size_exponent, uint64_t active_ns, uint64_t inactive_ns,
                         temporal_storage* final_storage, const char* directory, uint64_t data_size,
                         int32_t plugin_count, process_plugin* plugins) {
    auto* queue = make_lifelong<flow_queue>();
    queue->active_timeout = active_ns;
    queue->inactive_timeout = inactive_ns;
    queue->plugin_count = plugin_count;
    queue->plugins = plugins;
    queue->size = 1u << size_exponent;
    queue->bucket_mask = queue->size - bucket_slots;
    queue->scan_cursor = static_cast<int32_t>(queue->size - 1);
    queue->data_size = data_size;
    queue->record_size = FLOW_RECORD_BASE_SIZE + data_size;
    queue->stride = record_stride(queue->record_size);
    queue->directory = directory;
    queue->final_storage = final_storage;
    queue->sink = queue_put_final;
    queue->records = slot_array<uint8_t>(queue->size, queue->stride, directory, "record");
    queue->fast = slot_array<fast_record>(queue->size, sizeof(fast_record), directory, "fast");
    queue->keys = slot_array<flow_key>(queue->size, sizeof(flow_key), directory, "crc");
    const uint32_t blocks = (queue->size + block_slots - 1) / block_slots;
    queue->counters = cache_counters(queue->size);
    queue->block_flows = static_cast<uint16_t*>(malloc_wrapper(blocks * sizeof(uint16_t), 1));
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
    flow_queue* queue = queue_create(size_exponent, static_cast<uint64_t>(active_s) * ns_per_second,
                                     static_cast<uint64_t>(inactive_s) * ns_per_second,
                                     final_storage, directory, data_size, plugin_count, plugins);
    queue->now.store(timer_get_nsec(), std::memory_order_relaxed);
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
    --queue->block_flows[slot / block_slots];
}

void queue_remove_record_oneshot(flow_queue* queue, flow_record* record, int32_t reason) {
    queue->counters.add_removed(*record, reason);
    for (int32_t i = 0; i < queue->plugin_count; ++i) {
        const process_plugin& plugin = queue->plugins[i];
        plugin.release(plugin.instance, record, reason);
    }
    queue->sink(*queue, *record);
}
