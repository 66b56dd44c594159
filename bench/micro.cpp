// Nanoseconds per packet for each step of the hot path, one step at a time. Names mirror the source
// files: flow_key, parser, queue_update, temporal_storage; sw is the switch loop as it runs.

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <map>
#include <thread>
#include <vector>

#include "bench/frames.h"
#include "bench/workload.h"
#include "engine/switch.h"
#include "flow/flow_key.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/packet.h"
#include "record/layout.h"

namespace {

using namespace bench;

// Messages of the code under test would only disturb; errors end the process all the same.
const bool silent = [] {
    verbose_level = -2;
    return true;
}();

// ---- flow_key, parser ----

void flow_key_step32(benchmark::State& state) {
    uint64_t h = kestrel::flow_key_start;
    uint32_t word = 0;
    for (auto _ : state)
        h = kestrel::key_step32(h, word++);
    benchmark::DoNotOptimize(h);
}
BENCHMARK(flow_key_step32);

constexpr size_t frames_in_cache = 64;

enum frame_kind { tcp_ipv4, udp_ipv4, tcp_ipv6, tcp_ipv4_vlan };

frame frame_of(frame_kind kind, uint32_t n) {
    switch (kind) {
        case tcp_ipv4:
            return ipv4_frame(transport::tcp, n);
        case udp_ipv4:
            return ipv4_frame(transport::udp, n);
        case tcp_ipv6:
            return ipv6_frame(transport::tcp, n);
        default:
            return ipv4_frame(transport::tcp, n, true);
    }
}

std::vector<frame> frames_of(frame_kind kind) {
    std::vector<frame> frames(frames_in_cache);
    for (uint32_t n = 0; n < frames_in_cache; ++n)
        frames[n] = frame_of(kind, n);
    return frames;
}

void parser_process_packet(benchmark::State& state, frame_kind kind) {
    const std::vector<frame> frames = frames_of(kind);
    flow_record record{};
    size_t next = 0;
    for (auto _ : state) {
        const frame& from = frames[next++ % frames_in_cache];
        benchmark::DoNotOptimize(record_process_packet(from.bytes.data(), from.size, &record));
        benchmark::ClobberMemory();
    }
    if (record.l4protocol == 0)
        state.SkipWithError("frame was not parsed");
}
BENCHMARK_CAPTURE(parser_process_packet, tcp_ipv4, tcp_ipv4);
BENCHMARK_CAPTURE(parser_process_packet, udp_ipv4, udp_ipv4);
BENCHMARK_CAPTURE(parser_process_packet, tcp_ipv6, tcp_ipv6);
BENCHMARK_CAPTURE(parser_process_packet, tcp_ipv4_vlan, tcp_ipv4_vlan);

struct frame_source {
    std::vector<frame> frames;
    size_t next = 0;
};

const uint8_t* next_frame(void* instance, packet_header* header) {
    auto& source = *static_cast<frame_source*>(instance);
    const frame& from = source.frames[source.next++ % frames_in_cache];
    header->timestamp = source.next;
    header->captured_length = header->wire_length = from.size;
    return from.bytes.data();
}

// As the reader thread does it: the driver's call and the preparation of the record included.
void parser_flow_reader(benchmark::State& state, frame_kind kind) {
    frame_source source{frames_of(kind)};
    packet_reader reader{0, &source, next_frame};
    flow_record record{};
    for (auto _ : state) {
        kestrel::prepare_record(record);
        benchmark::DoNotOptimize(packet_to_flow_reader(&reader, &record));
        benchmark::ClobberMemory();
    }
    if (record.l4protocol == 0)
        state.SkipWithError("frame was not parsed");
}
BENCHMARK_CAPTURE(parser_flow_reader, tcp_ipv4, tcp_ipv4);
BENCHMARK_CAPTURE(parser_flow_reader, udp_ipv4, udp_ipv4);
BENCHMARK_CAPTURE(parser_flow_reader, tcp_ipv6, tcp_ipv6);
BENCHMARK_CAPTURE(parser_flow_reader, tcp_ipv4_vlan, tcp_ipv4_vlan);

// ---- queue_update ----

constexpr int32_t active_s = 180;  // the program's defaults
constexpr int32_t inactive_s = 5;

[[noreturn]] void drain(temporal_storage* storage) {
    for (;;)
        benchmark::DoNotOptimize(temporal_storage_get(storage, 50));
}

// One queue per size, made when first asked for: a queue and its threads live for the whole run.
flow_queue* queue_of(int64_t exponent) {
    static std::map<int64_t, flow_queue*> queues;
    flow_queue*& queue = queues[exponent];
    if (!queue) {
        temporal_storage* storage = temporal_storage_init(
            1u << (exponent - 4), FLOW_RECORD_BASE_SIZE, nullptr, "final-records");
        std::thread(drain, storage).detach();
        queue = queue_init(static_cast<int32_t>(exponent), active_s, inactive_s, storage, nullptr,
                           0, 0, nullptr);
        fill_buckets(queue);  // so that no page is touched for the first time while time is taken
    }
    flush(queue);
    return queue;
}

constexpr size_t few_flows = 64;
constexpr size_t sequence_min = size_t{1} << 20;

size_t many_flows(const flow_queue* queue) {
    return queue->size / 4;
}

void hit(benchmark::State& state, flow_queue* queue, size_t flow_count) {
    const std::vector<flow_key> flows = distinct_keys(flow_count);
    const std::vector<flow_key> packets =
        packets_of(flows, flow_count > sequence_min ? flow_count : sequence_min);
    update_all(queue, flows);
    flow_record record = packet_record();
    size_t next = 0;
    for (auto _ : state) {
        queue_update(queue, &record, packets[next]);
        next = next + 1 == packets.size() ? 0 : next + 1;
    }
}

void queue_update_hit_few(benchmark::State& state) {
    hit(state, queue_of(state.range(0)), few_flows);
}
void queue_update_hit_many(benchmark::State& state) {
    flow_queue* queue = queue_of(state.range(0));
    hit(state, queue, many_flows(queue));
}

// New flows into free slots; every quarter of the slots the queue is emptied, which is not timed.
void queue_update_miss(benchmark::State& state) {
    flow_queue* queue = queue_of(state.range(0));
    const std::vector<flow_key> flows = distinct_keys(many_flows(queue));
    flow_record record = packet_record();
    size_t next = 0;
    for (auto _ : state) {
        if (next == flows.size()) {
            state.PauseTiming();
            flush(queue);
            next = 0;
            state.ResumeTiming();
        }
        queue_update(queue, &record, flows[next++]);
    }
}

// New flows into full buckets. Another thread empties the final storage meanwhile; where it cannot
// keep pace, "Time" holds the wait and "CPU" the work.
void queue_update_evict(benchmark::State& state) {
    flow_queue* queue = queue_of(state.range(0));
    fill_buckets(queue);
    const std::vector<flow_key> flows = distinct_keys(sequence_min);
    flow_record record = packet_record();
    size_t next = 0;
    flow_key round = 0;
    for (auto _ : state) {
        if (next == flows.size()) {
            next = 0;
            round += flow_key{1} << 40;  // other keys, same buckets
        }
        queue_update(queue, &record, flows[next++] ^ round);
    }
}

BENCHMARK(queue_update_hit_few)->Arg(12)->Arg(19)->Arg(24);
BENCHMARK(queue_update_hit_many)->Arg(12)->Arg(19)->Arg(24);
BENCHMARK(queue_update_miss)->Arg(12)->Iterations(1 << 18);
BENCHMARK(queue_update_miss)->Arg(19)->Iterations(1 << 20);
BENCHMARK(queue_update_miss)->Arg(24)->Iterations(1 << 23);
BENCHMARK(queue_update_evict)->Arg(12)->Arg(19)->Arg(24);

// ---- temporal_storage ----

constexpr uint32_t exchange_slots = 1u << 16;  // of a queue of 2^19
constexpr uint32_t exchange_slot_size = FLOW_RECORD_BASE_SIZE + sizeof(flow_key);

void temporal_storage_handover(benchmark::State& state) {
    static temporal_storage* storage = [] {
        auto* made = temporal_storage_init(exchange_slots, exchange_slot_size, nullptr, "bench");
        std::thread([made] {
            for (;;)
                if (const void* slot = temporal_storage_get(made, 10))
                    benchmark::DoNotOptimize(*static_cast<const uint64_t*>(slot));
        }).detach();
        return made;
    }();
    uint64_t n = 0;
    void* slot = temporal_storage_reserve(storage);
    for (auto _ : state) {
        *static_cast<uint64_t*>(slot) = n++;
        temporal_storage_put(storage);
        slot = temporal_storage_reserve(storage);
    }
}
BENCHMARK(temporal_storage_handover)->UseRealTime();

// ---- sw ----

// An input of one-packet records: packets of prepared keys, as many as have been asked for.
struct key_source {
    std::vector<flow_key> packets;
    flow_record record;
    size_t next = 0;
    std::atomic<uint64_t> wanted{0};     // stored by the benchmark
    std::atomic<uint64_t> delivered{0};  // stored by the reader thread
};

flow_key next_key(void* instance, flow_record* record) {
    auto& source = *static_cast<key_source*>(instance);
    const uint64_t delivered = source.delivered.load(std::memory_order_relaxed);
    if (delivered == source.wanted.load(std::memory_order_acquire)) {
        usleep(1000);
        return 0;
    }
    *record = source.record;
    source.delivered.store(delivered + 1, std::memory_order_release);
    const flow_key key = source.packets[source.next];
    source.next = source.next + 1 == source.packets.size() ? 0 : source.next + 1;
    return key;
}

key_source* source_being_made;  // handed to the input's init, which has no other way

void* source_init(char*, int, uint16_t) {
    return source_being_made;
}

struct running_switch {
    key_source source;
    flow_queue* queue = nullptr;
    flow_switch* sw = nullptr;
    clockid_t cpu{};
};

running_switch& switch_of(int64_t exponent) {
    static std::map<int64_t, running_switch> switches;
    running_switch& made = switches[exponent];
    if (made.sw)
        return made;
    made.queue = queue_of(exponent);
    const std::vector<flow_key> flows = distinct_keys(many_flows(made.queue));
    update_all(made.queue, flows);
    made.source.packets =
        packets_of(flows, flows.size() > sequence_min ? flows.size() : sequence_min);
    made.source.record = packet_record();
    source_being_made = &made.source;
    input_plugin input{};
    input.init = source_init;
    input.get_flow = next_key;
    made.sw = sw_init(made.queue, FLOW_MASK_DEFAULT, 0, &input);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, sw_main_loop, made.sw) != 0)
        abort();
    if (pthread_getcpuclockid(thread, &made.cpu) != 0)
        abort();
    return made;
}

int64_t cpu_ns(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0)
        abort();
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// Processor time of the switch thread alone, per packet that joins a flow: ring, lock, prefetches
// and update as they run in the program, with many flows.
void sw_switch_thread_hit_many(benchmark::State& state) {
    running_switch& running = switch_of(state.range(0));
    const auto packets = static_cast<uint64_t>(state.max_iterations);
    const uint64_t before = running.source.delivered.load();
    const int64_t cpu_before = cpu_ns(running.cpu);
    running.source.wanted.store(before + packets, std::memory_order_release);
    while (!running.sw->exchange ||
           kestrel::storage_taken(*running.sw->exchange) < before + packets)
        usleep(1000);
    const double seconds = static_cast<double>(cpu_ns(running.cpu) - cpu_before) / 1e9;
    for (auto _ : state)
        state.SetIterationTime(seconds / static_cast<double>(packets));
}
BENCHMARK(sw_switch_thread_hit_many)
    ->Arg(12)
    ->Arg(19)
    ->Arg(24)
    ->Iterations(1 << 24)
    ->UseManualTime();

}  // namespace
