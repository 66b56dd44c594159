// The per-packet path of the flow cache: one packet record and its key join a flow or start one.
// Runs on the switch thread, under the queue's lock.
//
// Cost of a hit: one cache line of keys, one or two of fast records, and a bit of the idle scan,
// with the fast record of its flow when there is one; no branch that a steady flow mispredicts.
// Hence the shape: the eight keys of a bucket are compared at once, what is rare (a flow ends, a
// plugin runs) is out of line, and queue_prefetch_* lets the misses of packets to come overlap.
#pragma once

#include <emmintrin.h>

#include "base/prefetch.h"
#include "flow/flow_cache.h"

namespace kestrel {

// Bit n of the result: key n of the bucket equals the wanted one.
inline unsigned keys_equal(const flow_key* bucket, flow_key wanted) {
    const __m128i both = _mm_set1_epi64x(wanted);
    unsigned equal = 0;
    for (unsigned pair = 0; pair < bucket_slots / 2; ++pair) {
        const __m128i keys = _mm_load_si128(reinterpret_cast<const __m128i*>(bucket) + pair);
        // SSE2 compares 32 bits at a time: a key is equal when both its halves are.
        const __m128i halves = _mm_cmpeq_epi32(keys, both);
        const __m128i whole = _mm_and_si128(halves, _mm_shuffle_epi32(halves, 0xB1));
        equal |= static_cast<unsigned>(_mm_movemask_pd(_mm_castsi128_pd(whole))) << (2 * pair);
    }
    return equal;
}

// Bit n of the result: slot n of the bucket holds a flow (its key has the top bit).
inline unsigned keys_occupied(const flow_key* bucket) {
    unsigned used = 0;
    for (unsigned pair = 0; pair < bucket_slots / 2; ++pair) {
        const __m128i keys = _mm_load_si128(reinterpret_cast<const __m128i*>(bucket) + pair);
        used |= static_cast<unsigned>(_mm_movemask_pd(_mm_castsi128_pd(keys))) << (2 * pair);
    }
    return used;
}

inline constexpr unsigned bucket_full = (1u << bucket_slots) - 1;

inline uint32_t bucket_start(const flow_queue& queue, flow_key key) {
    return static_cast<uint32_t>(key) & queue.bucket_mask;
}

inline constexpr uint32_t no_slot = UINT32_MAX;

// The slot of the key's flow, or no_slot.
inline uint32_t queue_find_flow(const flow_queue& queue, flow_key key) {
    const uint32_t start = bucket_start(queue, key);
    const unsigned equal = keys_equal(queue.keys + start, key);
    return equal != 0 ? start + static_cast<uint32_t>(__builtin_ctz(equal)) : no_slot;
}

// Counter limits of one flow: the 24 bits of the fast record's packets, and 32 bits of bytes, each
// with room to spare.
inline constexpr uint64_t flow_packets_limit = 0xFF'FFF1;
inline constexpr uint64_t flow_bytes_limit = 0xFFFF'FFF0;

// Rare roads, each named for its event.
void queue_finish_scan(flow_queue& queue, uint64_t now);
void queue_start_flow(flow_queue& queue, uint32_t slot, flow_record& packet, flow_key key);
void queue_update_plugins(flow_queue& queue, uint32_t slot, flow_record& packet);
// The slot for a flow that the bucket at start does not hold: its first free one, or that of a
// victim, which leaves.
uint32_t queue_make_room(flow_queue& queue, uint32_t start);

// What the idle scan does with a slot that holds a flow.
inline void queue_remove_idle(flow_queue& queue, uint32_t slot, uint64_t now) {
    const fast_record& fast = queue.fast[slot];
    if (fast.packets() != 0 && longer_than(fast.end, now, queue.inactive_timeout)) [[unlikely]]
        queue_remove_record(&queue, slot, REMOVAL_INACTIVE);
}

// Looks at one slot of the idle scan, and into it only when there is a flow. Slot 0 is never
// examined: the cursor reaching it ends the scan, and its flow leaves by collision, active timeout
// or flush.
inline void queue_scan_step(flow_queue& queue, uint64_t now) {
    if (queue.scan_cursor < 0)
        return;
    const auto slot = static_cast<uint32_t>(queue.scan_cursor--);
    if (queue.scan_cursor >= 0 && queue.map.holds_flow(slot))
        queue_remove_idle(queue, slot, now);
}

// Adds a packet to the flow in slot. False when the flow ended instead and the slot is free: by
// active timeout, by a counter limit (a byte sum that wraps ends it like one that exceeds the
// limit, so nothing is lost), or because the packet is older than the flow's last one.
inline bool queue_join_flow(flow_queue& queue, uint32_t slot, flow_record& packet) {
    fast_record& fast = queue.fast[slot];
    const uint64_t bytes = uint64_t{fast.bytes} + packet.bytes;
    const uint64_t packets = uint64_t{fast.packets()} + packet.packets;
    const bool timed_out =
        packet.end >= fast.start && packet.end - fast.start >= queue.active_timeout;
    if (timed_out || bytes > flow_bytes_limit || packets >= flow_packets_limit) [[unlikely]] {
        queue_remove_record(&queue, slot, REMOVAL_ACTIVE);
        return false;
    }
    if (packet.end < fast.end) [[unlikely]] {
        queue_remove_record(&queue, slot, REMOVAL_COLLISION);
        return false;
    }
    fast.end = packet.end;
    fast.bytes = static_cast<uint32_t>(bytes);
    fast.set(static_cast<uint32_t>(packets),
             static_cast<uint8_t>(fast.tcp_flags() | packet.tcpflags));
    if (queue.plugin_count != 0) [[unlikely]]
        queue_update_plugins(queue, slot, packet);
    return true;
}

// One packet, the lock held. guess: a slot of the key's bucket where its flow may be.
inline void queue_update_locked(flow_queue& queue, flow_record& packet, flow_key key,
                                uint32_t guess) {
    const uint64_t now = queue.now.load(std::memory_order_relaxed);
    queue_scan_step(queue, now);
    if (queue.forced_checks != 0) [[unlikely]]
        queue_finish_scan(queue, now);
    queue.tally.add(packet);
    if (packet.export_flag != 0) [[unlikely]] {
        queue_remove_record_oneshot(&queue, &packet, REMOVAL_FORCED);
        return;
    }
    uint32_t slot = guess;
    if (queue.keys[guess] != key) [[unlikely]]
        slot = queue_find_flow(queue, key);
    if (slot != no_slot) [[likely]] {
        if (queue_join_flow(queue, slot, packet)) [[likely]]
            return;
    } else {
        slot = queue_make_room(queue, bucket_start(queue, key));
    }
    queue_start_flow(queue, slot, packet, key);
}

inline void queue_update_locked(flow_queue& queue, flow_record& packet, flow_key key) {
    queue_update_locked(queue, packet, key, bucket_start(queue, key));
}

// Fetches the keys that a packet to come will be compared with.
inline void queue_prefetch_bucket(const flow_queue& queue, flow_key key) {
    prefetch(queue.keys + bucket_start(queue, key));
}

// Fetches what the packet will change, once its bucket is in the cache: the fast record of its
// flow, or the place of a new one. Returns the slot, which is a guess: packets in between may
// change the bucket.
inline uint32_t queue_prefetch_slot(const flow_queue& queue, flow_key key) {
    uint32_t slot = queue_find_flow(queue, key);
    if (slot == no_slot) {
        const uint32_t start = bucket_start(queue, key);
        const unsigned free = ~keys_occupied(queue.keys + start) & bucket_full;
        slot = start + (free ? static_cast<uint32_t>(__builtin_ctz(free))
                             : static_cast<uint32_t>(queue.victim_counter) & (bucket_slots - 1));
        const uint8_t* record = queue.records + slot * queue.stride;
        prefetch(record);
        prefetch(record + FLOW_RECORD_BASE_SIZE - 1);
    }
    const auto* fast = reinterpret_cast<const uint8_t*>(queue.fast + slot);
    prefetch(fast);
    prefetch(fast + sizeof(fast_record) - 1);
    return slot;
}

// Lets go of the lock, and of the processor when the remover asked for the lock meanwhile.
void queue_yield(flow_queue& queue);
inline void queue_unlock(flow_queue& queue) {
    queue_publish(queue);
    queue.lock.unlock();
    if (queue.yield_wanted.load(std::memory_order_relaxed) != 0) [[unlikely]]
        queue_yield(queue);
}

}  // namespace kestrel
