// One step of the hot path, N times, in one thread and without clocks: for counting instructions.
// The preparation does not depend on N, so the difference between runs of N and 2N is the step.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/workload.h"
#include "flow/flow_cache_update.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/storage.h"

namespace {

using namespace bench;

constexpr uint64_t limit = 1u << 18;  // the longest run: half of the slots
constexpr int32_t exponent = 19;
constexpr uint64_t second_ns = 1'000'000'000;

// A queue without a remover, and with room for every record that a run can put out.
flow_queue* lone_queue() {
    auto* storage = temporal_storage_init(1u << 20, FLOW_RECORD_BASE_SIZE, nullptr, "final");
    return kestrel::queue_create(exponent, 180 * second_ns, 5 * second_ns, storage, nullptr, 0, 0,
                                 nullptr);
}

// Makes the compiler take it that the object has been read and changed.
void forget(const void* object) {
    asm volatile("" : : "r"(object) : "memory");
}

void parse_all(transport l4, uint64_t count) {
    const frame from = ipv4_frame(l4, 1);
    flow_record record{};
    flow_key keys = 0;
    for (uint64_t i = 0; i < count; ++i) {
        forget(&from);
        keys |= record_process_packet(from.bytes.data(), from.size, &record);
        forget(&record);
    }
    if (keys >= 0)
        abort();
}

void parse(uint64_t count) {
    parse_all(transport::tcp, count);
}

void parse_udp(uint64_t count) {
    parse_all(transport::udp, count);
}

// As the switch thread does it: the lock once for a batch of packets.
void update_first(flow_queue* queue, const std::vector<flow_key>& keys, uint64_t count) {
    constexpr uint64_t packets_per_lock = 32;
    flow_record record = packet_record();
    for (uint64_t done = 0; done < count; done += packets_per_lock) {
        queue->lock.lock();
        for (uint64_t i = done; i < done + packets_per_lock; ++i)
            kestrel::queue_update_locked(*queue, record, keys[i]);
        kestrel::queue_unlock(*queue);
    }
}

void hit(uint64_t count) {
    flow_queue* queue = lone_queue();
    const auto flows = distinct_keys(queue->size / 4);
    const auto packets = packets_of(flows, limit);
    update_all(queue, flows);
    update_first(queue, packets, count);
}

void miss(uint64_t count) {
    flow_queue* queue = lone_queue();
    update_first(queue, distinct_keys(limit), count);
}

void evict(uint64_t count) {
    flow_queue* queue = lone_queue();
    fill_buckets(queue);
    update_first(queue, distinct_keys(limit), count);
}

// Puts a batch, gets a batch.
void handover(uint64_t count) {
    constexpr uint32_t slots = 8192;
    constexpr uint64_t batch = slots / 8;
    auto* storage = temporal_storage_init(slots, FLOW_RECORD_BASE_SIZE + 8, nullptr, "bench");
    for (uint64_t done = 0; done < count; done += batch) {
        for (uint64_t i = 0; i < batch; ++i) {
            temporal_storage_reserve(storage);
            temporal_storage_put(storage);
        }
        for (uint64_t i = 0; i < batch; ++i)
            if (!temporal_storage_get(storage, 0))
                abort();
    }
}

struct step {
    const char* name;
    void (*run)(uint64_t count);
};

constexpr step steps[] = {
    {"parse", parse}, {"parse_udp", parse_udp}, {"hit", hit},
    {"miss", miss},   {"evict", evict},         {"handover", handover},
};

}  // namespace

int main(int argc, char** argv) {
    verbose_level = -2;
    const uint64_t count = argc == 3 ? strtoull(argv[2], nullptr, 10) : 0;
    for (const step& wanted : steps)
        if (count > 0 && count <= limit && strcmp(argv[1], wanted.name) == 0) {
            wanted.run(count);
            return 0;
        }
    fprintf(stderr, "usage: %s STEP COUNT (up to %lu), STEP one of:", argv[0], limit);
    for (const step& known : steps)
        fprintf(stderr, " %s", known.name);
    fputc('\n', stderr);
    return 2;
}
