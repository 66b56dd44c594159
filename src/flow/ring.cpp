// The rare roads of the ring: making it, waiting, announcing a batch. Runs on the thread of the
// side that calls; holds no lock.

#include "flow/ring.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"

namespace kestrel {
namespace {

constexpr uint32_t count_when_zero = 1024;
constexpr uint32_t count_max = 1u << 20;
constexpr uint64_t batches_per_ring = 8;
constexpr int watch_pause_ms = 250;
constexpr int for_ever_ms = -1;

struct pipe_ends {
    int read;
    int write;
};

pipe_ends make_pipe() {
    int ends[2];
    if (pipe(ends) != 0)
        die(exit_config, "Unable to create pipe");
    return {ends[0], ends[1]};
}

// Messages are one u64 count. Eight bytes go through a pipe whole or not at all, and a ring's pipes
// never hold more than a few messages, so this blocks for no one.
void send_count(int pipe_end, uint64_t count) {
    while (write(pipe_end, &count, sizeof count) != sizeof count) {
    }
}

uint64_t receive_count(int pipe_end) {
    uint64_t count = 0;
    while (read(pipe_end, &count, sizeof count) != sizeof count) {
    }
    return count;
}

uint32_t usable_count(uint32_t count) {
    if (count == 0) {
        verbose_msg(-1, "temporal storage too small, increasing to 1024");
        return count_when_zero;
    }
    if (count > count_max) {
        verbose_msg(-1, "temporal storage too large, decreasing to 2^20");
        return count_max;
    }
    return count;
}

constexpr metric_row ring_rows[] = {
    {"kestrelexp_ring_slots", "Slots of the ring.", nullptr, METRIC_GAUGE},
    {"kestrelexp_ring_used_slots", "Slots that were put and not taken yet.", nullptr, METRIC_GAUGE},
    {"kestrelexp_ring_waits_total", "Times that a producer had to wait for room.", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_ring_wait_microseconds_total", "Time that producers have waited for room.",
     nullptr, METRIC_COUNTER},
};

bool is_credit_there(const storage_producer& producer, int timeout_ms) {
    pollfd credit{producer.credit_read, POLLIN, 0};
    return poll(&credit, 1, timeout_ms) > 0;
}

}  // namespace

[[gnu::noinline]] bool storage_wait_for_credits(temporal_storage& storage, wait_watch* watch,
                                                void* context) {
    storage_producer& p = storage.producer;
    while (p.credits < p.batch && is_credit_there(p, 0))
        p.credits += receive_count(p.credit_read);
    if (p.credits >= p.batch)
        return true;
    storage.counters.add(ring_metric::waits);
    const int pause_ms = watch == nullptr ? for_ever_ms : watch_pause_ms;
    bool waits_on = true;
    uint64_t start_ns = system_uptime_ns();
    while (p.credits < p.batch && waits_on) {
        if (is_credit_there(p, pause_ms))
            p.credits += receive_count(p.credit_read);
        else
            waits_on = watch == nullptr || watch(context);
        const uint64_t now_ns = system_uptime_ns();
        storage.counters.add(ring_metric::wait_us, (now_ns - start_ns) / ns_per_us);
        start_ns = now_ns;
    }
    return p.credits > 0;
}

void storage_show(const temporal_storage& storage) {
    // In this order, so that the difference is never below 0.
    const uint64_t taken = storage_taken(storage);
    storage.counters.set(ring_metric::used_slots, storage_committed(storage) - taken);
}

[[gnu::noinline]] void storage_announce(temporal_storage& storage, uint64_t pending) {
    storage_producer& p = storage.producer;
    send_count(p.notify_write, pending);
    p.announced = p.committed.load(std::memory_order_relaxed);
}

void storage_announce_rest(temporal_storage& storage) {
    const uint64_t committed = storage.producer.committed.load(std::memory_order_relaxed);
    if (const uint64_t pending = storage_pending(storage, committed); pending > 0)
        storage_announce(storage, pending);
}

[[gnu::noinline]] bool storage_refill(temporal_storage& storage, int timeout_ms) {
    storage_consumer& c = storage.consumer;
    if (c.consumed >= c.batch) {
        send_count(c.credit_write, c.consumed);
        c.consumed = 0;
    }
    for (;;) {
        pollfd notify{c.notify_read, POLLIN, 0};
        const bool is_announced = poll(&notify, 1, timeout_ms) > 0;
        const uint64_t announced = is_announced ? receive_count(c.notify_read) : c.batch;
        const uint64_t there = storage_committed(storage) - c.seen;
        const uint64_t fresh = std::min({announced, there, c.batch});
        if (fresh > 0) {
            c.available = fresh;
            c.seen += fresh;
            if (!is_announced)
                storage.grab.grabbed.store(c.seen, std::memory_order_relaxed);
            return true;
        }
        if (!is_announced)
            return false;
        // Told of slots that an earlier time-out had taken while they were being announced.
    }
}

}  // namespace kestrel

using namespace kestrel;

temporal_storage* temporal_storage_init(uint32_t count, uint32_t slot_size, const char* directory,
                                        const char* name) {
    count = usable_count(count);
    verbose_msg(0, "Temporal storage init: %i of %i (mem: %u KiB) %s", static_cast<int>(count),
                static_cast<int>(slot_size),
                static_cast<unsigned>(uint64_t{count} * slot_size / 1024), name);
    const pipe_ends credit = make_pipe();
    const pipe_ends notify = make_pipe();
    // Rings of fewer than eight slots work in batches of one.
    const uint64_t batch = std::max<uint64_t>(count / batches_per_ring, 1);

    auto* storage = make_lifelong<temporal_storage>();
    storage->buffer =
        static_cast<uint8_t*>(big_array(uint64_t{count} * slot_size, directory, name));
    storage->counters = counter_block<ring_metric>(ring_rows, metric_label("ring", name).c_str());
    storage->counters.set(ring_metric::slots, count);

    storage_producer& p = storage->producer;
    p.credits = count;
    p.count = count;
    p.slot_size = slot_size;
    p.batch = batch;
    p.slot = storage->buffer;
    p.credit_read = credit.read;
    p.notify_write = notify.write;

    storage_consumer& c = storage->consumer;
    c.count = count;
    c.slot_size = slot_size;
    c.batch = batch;
    c.slot = storage->buffer;
    c.notify_read = notify.read;
    c.credit_write = credit.write;
    return storage;
}

void* temporal_storage_current(temporal_storage* storage) {
    return storage->producer.slot;
}

void* temporal_storage_reserve(temporal_storage* storage) {
    return storage_reserve(*storage);
}

void* temporal_storage_put(temporal_storage* storage) {
    if (storage->producer.credits == 0)
        (void)storage_wait_for_credits(*storage, nullptr, nullptr);  // there are, then
    return storage_commit(*storage);
}

void* temporal_storage_put_block(temporal_storage* storage, const void* record) {
    std::memcpy(storage->producer.slot, record, storage->producer.slot_size);
    return temporal_storage_put(storage);
}

void* temporal_storage_get(temporal_storage* storage, int timeout_ms) {
    return storage_get(*storage, timeout_ms);
}
