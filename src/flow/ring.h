// The ring of kestrelexp/storage.h, with its per-record operations inline for the program's own
// loops. Exactly one producer thread and one consumer thread (the "final-records" ring has two
// producers that take turns under the queue's lock).
//
// Cost of a put and a get in steady state: a few plain instructions each, no lock and no locked
// instruction; one system call per batch and side. Hence the shape: each side keeps its state on
// cache lines of its own, and the only words that cross are `committed` (stored by the producer,
// read by the consumer once per batch or time-out) and `grabbed` (the other way round, rarer
// still).
//
// Slots lie at exactly the slot size, so records in them need not be aligned: slot_record.h helps.
//
// Slots are announced in whole batches through a pipe, so that a consumer with nothing to do sleeps
// in the kernel. When it has waited for its time-out it takes the partial batch that is there and
// tells the producer through `grabbed`, which then counts the next batch from that point.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/counters.h"
#include "kestrelexp/storage.h"

namespace kestrel {

// Waits are written by the producers in turn, the rest by who looks at the ring (storage_show).
enum class ring_metric { slots, used_slots, waits, wait_us, count };

inline constexpr size_t cache_line_pair = 128;  // the adjacent-line prefetcher works on pairs

struct alignas(cache_line_pair) storage_producer {
    uint64_t credits;    // free slots that may still be committed
    uint64_t announced;  // how many of the committed slots the consumer has been told of
    uint64_t index;
    uint64_t count;
    uint64_t slot_size;  // bytes from slot to slot, and what a put_block copies
    uint64_t batch;
    uint8_t* slot;    // the current slot
    int credit_read;  // pipe ends
    int notify_write;
    // Slots committed since the ring was made. Stored with release by the producer, so that who
    // loads it with acquire sees the contents of every slot it counts.
    std::atomic<uint64_t> committed;
};

struct alignas(cache_line_pair) storage_consumer {
    uint64_t available;  // slots that may be taken without looking at the producer
    uint64_t consumed;   // slots released and not yet credited back
    uint64_t seen;       // taken + available
    uint64_t index;
    uint64_t count;
    uint64_t slot_size;
    uint64_t batch;
    uint8_t* slot;  // the slot in hand, or the next one
    bool in_hand;   // the slot returned last is still being read
    int notify_read;
    int credit_write;
    // Slots handed out since the ring was made. Only counts, carries no data with it: relaxed.
    std::atomic<uint64_t> taken;
};

// On a line of its own: the producer loads it with every put, the consumer stores it on time-outs.
struct alignas(cache_line_pair) storage_grab {
    // Value of `seen` when the consumer last took a partial batch. Relaxed: an old value makes the
    // producer announce slots that were taken already, and the consumer tests for that.
    std::atomic<uint64_t> grabbed;
};

}  // namespace kestrel

struct temporal_storage {
    kestrel::storage_consumer consumer;
    kestrel::storage_producer producer;
    kestrel::storage_grab grab;
    uint8_t* buffer;
    // Slots committed when the last flush of the flow cache ended. Published by the end of the
    // flush (flush_request.h), so relaxed.
    std::atomic<uint64_t> flushed;
    kestrel::counter_block<kestrel::ring_metric> counters;
};

namespace kestrel {

// What a producer that waits for room does about four times a second; returns whether it waits on.
using wait_watch = bool(void* context);

// Blocks until the producer has at least a batch of credits, or the watch (may be null) waits no
// more. Returns whether there are credits.
bool storage_wait_for_credits(temporal_storage& storage, wait_watch* watch, void* context);
// Tells the consumer of `pending` more slots.
void storage_announce(temporal_storage& storage, uint64_t pending);
// Tells the consumer of every slot committed so far, when it does not know of them all.
void storage_announce_rest(temporal_storage& storage);
// Makes slots available to the consumer, waiting up to timeout_ms; false when none came.
bool storage_refill(temporal_storage& storage, int timeout_ms);

inline void* storage_reserve(temporal_storage& storage) {
    if (storage.producer.credits == 0) [[unlikely]]
        (void)storage_wait_for_credits(storage, nullptr, nullptr);  // there are, then
    return storage.producer.slot;
}

// The same with a watch; null when that waits no more.
inline void* storage_reserve(temporal_storage& storage, wait_watch* watch, void* context) {
    if (storage.producer.credits == 0 && !storage_wait_for_credits(storage, watch, context))
        [[unlikely]]
        return nullptr;
    return storage.producer.slot;
}

// Of the slots committed, those that the consumer neither was told of nor has taken on its own.
inline uint64_t storage_pending(const temporal_storage& storage, uint64_t committed) {
    const uint64_t grabbed = storage.grab.grabbed.load(std::memory_order_relaxed);
    const uint64_t announced = storage.producer.announced;
    return committed - (grabbed > announced ? grabbed : announced);
}

// Commits the current slot, which must be free (see storage_reserve). Returns the next one.
inline void* storage_commit(temporal_storage& storage) {
    storage_producer& p = storage.producer;
    const uint64_t committed = p.committed.load(std::memory_order_relaxed);
    const uint64_t pending = storage_pending(storage, committed);
    if (pending >= p.batch) [[unlikely]]
        storage_announce(storage, pending);
    p.committed.store(committed + 1, std::memory_order_release);
    p.credits -= 1;
    p.index += 1;
    p.slot += p.slot_size;
    if (p.index == p.count) [[unlikely]] {
        p.index = 0;
        p.slot = storage.buffer;
    }
    return p.slot;
}

inline void* storage_get(temporal_storage& storage, int timeout_ms) {
    storage_consumer& c = storage.consumer;
    if (c.in_hand) {
        c.in_hand = false;
        c.consumed += 1;
        c.index += 1;
        c.slot += c.slot_size;
        if (c.index == c.count) [[unlikely]] {
            c.index = 0;
            c.slot = storage.buffer;
        }
    }
    if (c.available == 0 && !storage_refill(storage, timeout_ms)) [[unlikely]]
        return nullptr;
    c.available -= 1;
    c.in_hand = true;
    c.taken.store(c.taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return c.slot;
}

// Consumer: the slot that the n-th get from now will return (1 = the next), or null when that is
// not known yet. For prefetching; nothing is taken.
inline const void* storage_peek(const temporal_storage& storage, uint64_t n) {
    const storage_consumer& c = storage.consumer;
    if (n > c.available)
        return nullptr;
    const uint64_t index = c.index + n - (c.in_hand ? 0 : 1);
    return storage.buffer + (index < c.count ? index : index - c.count) * c.slot_size;
}

// Slots committed since the ring was made, those of them up to the end of the last flush, and slots
// taken; any thread. A slot in hand counts as taken.
inline uint64_t storage_committed(const temporal_storage& storage) {
    return storage.producer.committed.load(std::memory_order_acquire);
}
inline uint64_t storage_flushed(const temporal_storage& storage) {
    return storage.flushed.load(std::memory_order_relaxed);
}
inline uint64_t storage_taken(const temporal_storage& storage) {
    return storage.consumer.taken.load(std::memory_order_relaxed);
}

// Shows readers how full the ring is. One thread at a time.
void storage_show(const temporal_storage& storage);

}  // namespace kestrel
