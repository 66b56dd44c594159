// The loop of a replay. Cost per packet, beside reading and parsing: one comparison for the clock,
// and the update. A batch of packets is parsed into records that stay in the first-level cache,
// their buckets are fetched meanwhile, and then the queue is updated with all of them.
//
// Nobody else touches the queue, so its lock is not taken here.

#include "engine/replay.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <span>

#include "base/clock.h"
#include "base/memory.h"
#include "base/packet_clock.h"
#include "base/wire.h"
#include "engine/lanes.h"
#include "flow/ageing.h"
#include "flow/flow_cache_update.h"
#include "flow/flush_request.h"
#include "flow/parser.h"
#include "record/layout.h"

namespace kestrel {
namespace {

// Set before the flush is requested that wakes an input, so the loop sees it once that is served.
std::atomic<bool> is_stop_wanted = false;

constexpr unsigned batch_packets = 64;

struct replay {
    flow_switch& sw;
    flow_queue& queue;
    uint64_t read;     // the latest time of a frame read, flow or not
    uint64_t now;      // the latest time that has come up to the queue
    uint64_t reached;  // how far the input said it had come, after the batch
    uint64_t ticked;   // up to here the queue has aged
    ageing age;
    replay_totals* totals;
    bool has_ended;
    unsigned batch_limit;
    unsigned count;  // packets in the batch
    uint8_t* records;
    flow_key keys[batch_packets];
    uint32_t slots[batch_packets];      // where the flows may be
    uint64_t times[batch_packets];      // the clock at each packet
    input_frame frames[batch_packets];  // zero when the input is asked
};

// How far the input has come (ns); once it is initialised, the time of its first packet.
uint64_t clock_of(const flow_switch& sw) {
    uint64_t now = 0;
    (void)sw.clock(sw.instance, &now);
    return now;
}

flow_record& record_of(const replay& r, unsigned n) {
    return *reinterpret_cast<flow_record*>(r.records + n * r.queue.stride);
}

// The input has no packet just now, or never again.
void note_pause(replay& r) {
    const int state = r.sw.clock(r.sw.instance, &r.reached);
    r.has_ended = state != INPUT_CLOCK_RUNS;
    r.totals->has_failed = state == INPUT_CLOCK_FAILED;
}

// Frames from the input, up to the limit; they are valid until the next call. How many: 0 is a
// pause. One that gives single packets gives batches of one.
unsigned read_frames(replay& r, unsigned limit) {
    if (r.sw.get_batch != nullptr)
        return std::min(r.sw.get_batch(r.sw.instance, 0, r.frames, limit), limit);
    const auto& reader = *static_cast<const packet_reader*>(r.sw.context);
    r.frames[0].data = reader.get_packet(reader.context, &r.frames[0].header);
    return r.frames[0].data != nullptr ? 1 : 0;
}

// Parses the frames into the next records of the batch, and clears them.
void parse_frames(replay& r, unsigned given) {
    r.sw.counters.add_frames(std::span(r.frames, given));
    uint64_t read = r.read;
    unsigned count = r.count;
    for (unsigned n = 0; n < given; ++n) {
        const input_frame& frame = r.frames[n];
        // The clock never runs backwards: a packet out of order is as late as it was live.
        read = std::max(read, frame.header.timestamp);
        flow_record& record = record_of(r, count);
        prepare_slot(record);
        const flow_key key = parse_packet(frame.data, frame.header, r.sw.sampling, record);
        if (!occupied(key)) [[unlikely]] {
            r.sw.counters.add_discarded(key);
            r.totals->no_flow += 1;
            continue;
        }
        queue_prefetch_bucket(r.queue, key);
        r.times[count] = read;
        r.keys[count++] = key;
    }
    std::memset(r.frames, 0, given * sizeof *r.frames);
    r.totals->frames += given;
    r.read = read;
    r.count = count;
}

void read_batch(replay& r) {
    r.count = 0;
    while (r.count < r.batch_limit) {
        const unsigned given = read_frames(r, r.batch_limit - r.count);
        if (given == 0) [[unlikely]] {
            std::memset(r.frames, 0, sizeof r.frames);  // whatever was begun
            return note_pause(r);
        }
        parse_frames(r, given);
    }
}

// The flow in slot 0 is not aged, and one that is not there needs no ageing.
bool has_nothing_to_age(const flow_queue& queue) {
    return queue.record_count == (occupied(queue.keys[0]) ? 1u : 0u);
}

// Of so many ticks in a silence, those that would change nothing: whole cycles of passes.
uint64_t idle_ticks(const replay& r, uint64_t ticks) {
    const bool is_scan_fresh = r.queue.scan_cursor == static_cast<int32_t>(r.queue.size) - 1;
    if (!is_scan_fresh || !has_nothing_to_age(r.queue))
        return 0;
    return ticks - ticks % (idle_passes_cycle * queue_pass_ticks(r.queue));
}

// Lets the queue age, tick by tick, up to the time given. A silence of years costs no more than
// the passes that end the last flows, and a few.
[[gnu::noinline]] void age_until(replay& r, uint64_t now) {
    uint64_t ticks = (now - r.ticked) / tick_ns;
    while (ticks > 0) {
        const uint64_t skipped = idle_ticks(r, ticks - 1);
        ticks -= skipped;
        r.ticked += skipped * tick_ns;
        const uint64_t step = std::min(ticks, r.age.ticks_left);
        ticks -= step;
        r.ticked += step * tick_ns;
        r.queue.now.store(r.ticked, std::memory_order_relaxed);
        if (queue_age(r.queue, r.age, step, r.ticked))
            r.queue.statistics.print_if_due(r.ticked / ns_per_second);
    }
}

inline void advance_clock(replay& r, uint64_t to_ns) {
    r.now = std::max(r.now, to_ns);
    if (r.now - r.ticked >= tick_ns) [[unlikely]]
        age_until(r, r.now);
}

// Process plugins see the frame while its packet is in hand, and none while flows age.
void update_showing_frame(replay& r) {
    const packet_frame frame = parser_position();
    parser_forget_position();
    for (unsigned n = 0; n < r.count; ++n) {
        advance_clock(r, r.times[n]);
        const packet_in_hand in_hand(frame);
        queue_update_locked(r.queue, record_of(r, n), r.keys[n]);
    }
}

// All slots are fetched ahead before the first is changed.
void update_batch(replay& r) {
    if (r.queue.plugin_count != 0)
        return update_showing_frame(r);
    for (unsigned n = 0; n < r.count; ++n)
        r.slots[n] = queue_prefetch_slot(r.queue, r.keys[n]);
    for (unsigned n = 0; n < r.count; ++n) {
        advance_clock(r, r.times[n]);
        queue_update_locked(r.queue, record_of(r, n), r.keys[n], r.slots[n]);
    }
}

// The sink of replays: the record, and after it when it left.
void put_stamped(flow_queue& queue, const flow_record& record) {
    temporal_storage& finals = *queue.final_storage;
    auto* slot = static_cast<uint8_t*>(storage_reserve(finals));
    std::memcpy(slot, &record, queue.record_size);
    // The clock ticks; a packet that ended a flow may be ahead of it.
    const uint64_t now = queue.now.load(std::memory_order_relaxed);
    store_native(slot + queue.record_size, replay_stamp{std::max(now, record.end), nullptr});
    storage_commit(finals);
}

// Ends the flows that are left at the time of the last packet, as an interrupt would have.
[[noreturn]] void finish(replay& r) {
    ask_reader(r.sw, close_input);
    (void)serve_requests(r.sw);
    queue_flush(&r.queue);
    temporal_storage& finals = *r.queue.final_storage;
    uint8_t* slot = static_cast<uint8_t*>(storage_reserve(finals));
    store_native(slot + r.queue.record_size, replay_stamp{r.now, r.totals});
    storage_commit(finals);
    for (;;)
        pause();
}

}  // namespace

flow_queue* replay_queue_init(int32_t size_exponent, int32_t active_s, int32_t inactive_s,
                              temporal_storage* final_storage, const char* directory,
                              uint64_t data_size, int32_t plugin_count, process_plugin* plugins) {
    flow_queue* queue = queue_init_unaged(size_exponent, active_s, inactive_s, final_storage,
                                          directory, data_size, plugin_count, plugins);
    queue->sink = put_stamped;
    return queue;
}

flow_switch* replay_switch_init(flow_queue* queue, uint32_t flow_mask, int needs_packets,
                                input_plugin* input) {
    if (input->get_packet != nullptr)
        return sw_init(queue, flow_mask, needs_packets, input);
    return lanes_switch_init(queue, flow_mask, needs_packets, input);
}

void replay_start_clock(flow_switch& sw, const plugin_operations& input) {
    sw.clock = input.clock;
    sw.get_batch = input.get_batch;
    packet_clock_start(clock_of(sw));
}

void replay_stop() {
    is_stop_wanted.store(true, std::memory_order_release);
    request_flush();
}

void* replay_loop(void* argument) {
    auto& sw = *static_cast<flow_switch*>(argument);
    (void)pthread_setname_np(pthread_self(), "replay");  // a name for top -H, no more
    flow_queue& queue = *sw.queue;
    const uint64_t start = clock_of(sw);
    queue.now.store(start, std::memory_order_relaxed);
    queue_start_statistics(queue, start);
    auto& r = *make_lifelong<replay>(replay{
        .sw = sw,
        .queue = queue,
        .read = start,
        .now = start,
        .reached = start,
        .ticked = start,
        .age = queue_start_ageing(queue),
        .totals = make_lifelong<replay_totals>(),
        .has_ended = false,
        // Process plugins are to see the frame of the record in hand.
        .batch_limit = queue.plugin_count != 0 ? 1 : batch_packets,
        .count = 0,
        .records = static_cast<uint8_t*>(malloc_wrapper(batch_packets * queue.stride, 1)),
        .keys = {},
        .slots = {},
        .times = {},
        .frames = {},
    });
    while (!r.has_ended && !is_stop_wanted.load(std::memory_order_acquire) && reads_on(sw)) {
        read_batch(r);
        update_batch(r);
        queue_publish(queue);
        advance_clock(r, r.reached);
        (void)queue_serve_flush_request(queue);
    }
    finish(r);
}

}  // namespace kestrel
