// The flow cache ("queue"): its structure, how it is made, and how flows leave it. What happens per
// packet is in flow_cache_update.h, ageing and flushing in ageing.h.
//
// 2^q slots in buckets of eight. A slot's flow lies in three arrays: its key (eight keys of a
// bucket are one cache line), its fast record (24 bytes that change with every packet) and its full
// record (written when the flow starts and when it leaves). Flows are told apart by key alone.
//
// The switch thread updates it, the remover thread ages it; one lock guards everything but `now`.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/spinlock.h"
#include "flow/flow_counters.h"
#include "flow/ring.h"
#include "flow/slot_map.h"
#include "flow/statistics_line.h"
#include "kestrelexp/flow.h"

namespace kestrel {

inline constexpr uint32_t bucket_slots = 8;

// How much the remover wants the lock.
enum yield_wish : uint32_t {
    no_yield,
    yield_once,  // it asks, and sees at once that the lock is free
    give_way,    // it has had no luck for long, and looks a few times in ten milliseconds
};

// What changes with every packet of a flow.
struct fast_record {
    uint64_t start;  // ns
    uint64_t end;    // ns
    uint32_t bytes;
    uint32_t packets_and_flags;  // packets in the low 24 bits, TCP flags in the high 8

    uint32_t packets() const { return packets_and_flags & 0x00FF'FFFF; }
    uint8_t tcp_flags() const { return static_cast<uint8_t>(packets_and_flags >> 24); }
    void set(uint32_t packets, uint8_t flags) {
        packets_and_flags = (packets & 0x00FF'FFFF) | uint32_t{flags} << 24;
    }
};
static_assert(sizeof(fast_record) == 24);

}  // namespace kestrel

namespace kestrel {

// Takes a finished flow out of the queue, with its lock held: copies it to where it goes, and waits
// there for room if it must. The queue does not know who listens.
using flow_sink = void(flow_queue& queue, const flow_record& record);

}  // namespace kestrel

// The order of the fields up to final_storage is fixed, as the assertions below have it; fields
// that come new stand after them.
struct flow_queue {
    // Wall clock in ns. Stored by the remover every 10 ms without the lock, loaded by both threads:
    // a time-out that is 10 ms old is good enough, so relaxed.
    std::atomic<uint64_t> now;
    uint64_t victim_counter;
    uint64_t active_timeout;  // ns
    kestrel::fast_record* fast;
    flow_key* keys;  // negative: the slot holds this flow; else it is free
    int32_t plugin_count;
    kestrel::cache_tally tally;  // published by queue_publish
    uint64_t inactive_timeout;   // ns
    uint32_t forced_checks;      // scans in a row that the packet path did not complete
    kestrel::spinlock lock;
    uint8_t* records;
    uint32_t size;         // slots, 2^q
    uint32_t bucket_mask;  // key bits that choose a bucket: size - 8
    uint32_t record_count;
    int32_t scan_cursor;  // the idle scan has looked at the slots from here upwards
    // A kestrel::yield_wish, set by the remover before it asks for the lock, so that the switch
    // thread yields when it lets go. A hint that carries no data: relaxed.
    std::atomic<uint32_t> yield_wanted;
    uint64_t data_size;  // bytes of a record after its base part
    process_plugin* plugins;
    const char* directory;  // hugetlbfs directory, or null
    temporal_storage* final_storage;

    uint64_t record_size;      // base part and data space
    uint64_t stride;           // bytes from record to record
    kestrel::slot_map map;     // of the slots that hold a flow
    kestrel::flow_sink* sink;  // queue_put_final, unless the engine sets another one
    kestrel::cache_counters counters;
    kestrel::statistics_line statistics;
};

namespace kestrel {

// The sink of live inputs: the record goes into final_storage as it is.
flow_sink queue_put_final;

// Makes a queue without a remover thread; queue_init adds one. `now` is left to the caller.
flow_queue* queue_create(int32_t size_exponent, uint64_t active_ns, uint64_t inactive_ns,
                         temporal_storage* final_storage, const char* directory, uint64_t data_size,
                         int32_t plugin_count, process_plugin* plugins);

// queue_init (kestrelexp/flow.h) without the remover thread.
decltype(queue_init) queue_init_unaged;

// Shares the slots of a queue that is still empty out among so many (a power of two): it becomes
// the first part, the others are returned in their order, without a remover thread. The final
// storage of each part is left to the caller. Before any other thread touches the queue.
std::vector<flow_queue*> queue_share_out(flow_queue& whole, uint32_t parts);

inline flow_record& queue_record(flow_queue& queue, uint32_t slot) {
    return *reinterpret_cast<flow_record*>(queue.records + slot * queue.stride);
}

// Before the lock is let go.
inline void queue_publish(const flow_queue& queue) {
    queue.counters.publish(queue.tally, queue.record_count);
}

inline bool occupied(flow_key key) {
    return key < 0;
}

// A question about real time, so it cannot wrap: a flow that ends ahead of the clock is not idle.
inline bool longer_than(uint64_t from, uint64_t to, uint64_t limit) {
    return to > from && to - from > limit;
}

static_assert(offsetof(flow_queue, now) == 0 && offsetof(flow_queue, victim_counter) == 8 &&
              offsetof(flow_queue, active_timeout) == 16 && offsetof(flow_queue, fast) == 24 &&
              offsetof(flow_queue, keys) == 32 && offsetof(flow_queue, plugin_count) == 40 &&
              offsetof(flow_queue, tally) == 48 && offsetof(flow_queue, inactive_timeout) == 72 &&
              offsetof(flow_queue, forced_checks) == 80 && offsetof(flow_queue, lock) == 84 &&
              offsetof(flow_queue, records) == 88 && offsetof(flow_queue, size) == 96 &&
              offsetof(flow_queue, bucket_mask) == 100 &&
              offsetof(flow_queue, record_count) == 104 &&
              offsetof(flow_queue, scan_cursor) == 108 &&
              offsetof(flow_queue, yield_wanted) == 112 && offsetof(flow_queue, data_size) == 120 &&
              offsetof(flow_queue, plugins) == 128 && offsetof(flow_queue, directory) == 136 &&
              offsetof(flow_queue, final_storage) == 144);

// Copies what the fast record knows better into the slot's full record.
inline flow_record& queue_refresh_record(flow_queue& queue, uint32_t slot) {
    const fast_record& fast = queue.fast[slot];
    flow_record& record = queue_record(queue, slot);
    record.end = fast.end;
    record.packets = fast.packets();
    record.bytes = fast.bytes;
    record.tcpflags = fast.tcp_flags();
    return record;
}

}  // namespace kestrel
