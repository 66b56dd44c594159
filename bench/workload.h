// Key sequences and queues for the benchmarks: what is prepared before anything is timed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <vector>

#include "bench/frames.h"
#include "flow/flow_cache.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/service.h"

namespace bench {

// The n-th of an endless list of distinct flows, as the parser would name it.
inline flow_key key_of(uint64_t n) {
    return static_cast<flow_key>(mix(n) | 0x8000'0000'0000'0000);
}

inline std::vector<flow_key> distinct_keys(size_t count, uint64_t first = 0) {
    std::vector<flow_key> keys(count);
    for (size_t i = 0; i < count; ++i)
        keys[i] = key_of(first + i);
    return keys;
}

// A sequence of packets that belong to the flows given, in random order.
inline std::vector<flow_key> packets_of(const std::vector<flow_key>& flows, size_t count) {
    std::vector<flow_key> keys(count);
    for (size_t i = 0; i < count; ++i)
        keys[i] = flows[mix(i) % flows.size()];
    return keys;
}

// One packet record. Its time lies ahead of the queue's clock, so its flow never gets idle or old.
inline flow_record packet_record() {
    constexpr uint64_t hour_ns = 3'600'000'000'000;
    flow_record record{};
    record.start = record.end = timer_get_nsec() + hour_ns;
    record.packets = 1;
    record.bytes = 46;
    record.l3protocol = 4;
    record.l4protocol = 6;
    record.tcpflags = 0x10;
    return record;
}

inline void update_all(flow_queue* queue, const std::vector<flow_key>& keys) {
    flow_record record = packet_record();
    for (const flow_key key : keys)
        queue_update(queue, &record, key);
}

// Eight flows in every bucket, so that whatever is new has to evict.
inline void fill_buckets(flow_queue* queue) {
    flow_record record = packet_record();
    for (uint64_t slot = 0; slot < queue->size; ++slot) {
        const uint64_t bucket = slot & ~uint64_t{kestrel::bucket_slots - 1};
        queue_update(queue, &record,
                     static_cast<flow_key>(0xFFFF'0000'0000'0000 | (slot & 7) << 40 | bucket));
    }
}

inline void flush(flow_queue* queue) {
    queue->lock.lock();
    queue_flush(queue);
    queue->lock.unlock();
}

// Finished flows of three protocols in turn, so that an exporter changes between its templates.
struct mixed_flows {
    mixed_flows() {
        constexpr uint8_t protocols[] = {6, 17, 6, 1};
        for (size_t i = 0; i < std::size(flows); ++i) {
            flow_record& flow = flows[i];
            flow = {};
            flow.start = flow.end = timer_get_nsec();  // one that ends in the future travels alone
            flow.packets = 7;
            flow.bytes = 4711;
            flow.l3protocol = 4;
            flow.l4protocol = protocols[i];
        }
    }
    flow_record& next() { return flows[++count % std::size(flows)]; }
    flow_record flows[4];
    size_t count = 0;
};

}  // namespace bench
