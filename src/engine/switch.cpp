// The loops between input, parser, ring and queue.
//
// Cost per packet, beside parsing and updating: one prepared record, one put and one get of the
// ring; the queue's lock once for up to packets_per_lock packets that the ring has announced. Hence
// the shape of the switch loop: it looks ahead into the ring and fetches first the bucket, then the
// slot that a packet to come will touch, so that their cache misses overlap with work.

#include "engine/switch.h"

#include <pthread.h>
#include <unistd.h>

#include "base/log.h"
#include "base/memory.h"
#include "base/observation.h"
#include "base/thread.h"
#include "base/wire.h"
#include "flow/flow_cache_update.h"
#include "flow/frame_ring.h"
#include "flow/parser.h"
#include "flow/slot_record.h"
#include "record/layout.h"

namespace kestrel {
namespace {

constexpr int exchange_timeout_ms = 10;
constexpr uint32_t exchange_slots_divisor = 8;  // of the queue's slots
// A waiter for the lock waits for a few microseconds at most, and the lock costs next to nothing.
constexpr unsigned packets_per_lock = 32;
constexpr uint64_t bucket_distance = 32;  // packets ahead
constexpr uint64_t slot_distance = 12;

// A name for top -H, no more, so a failure does not matter.
void name_thread(const char* name) {
    (void)pthread_setname_np(pthread_self(), name);
}

// Up to the end of the process.
[[noreturn]] void rest() {
    for (;;)
        pause();
}

// The exchange ring, for the threads on its two sides.
temporal_storage& exchange_of(const flow_switch& sw) {
    return *sw.exchange.load(std::memory_order_relaxed);
}

// The key follows the record in an exchange slot.
flow_key exchange_key(const flow_queue& queue, const void* slot) {
    return load_native<flow_key>(static_cast<const uint8_t*>(slot) + queue.record_size);
}

[[gnu::always_inline]] inline void look_ahead(const flow_queue& queue,
                                              const temporal_storage& exchange) {
    if (const void* slot = storage_peek(exchange, bucket_distance))
        queue_prefetch_bucket(queue, exchange_key(queue, slot));
    if (const void* slot = storage_peek(exchange, slot_distance))
        (void)queue_prefetch_slot(queue, exchange_key(queue, slot));
}

// What process plugins see of the packet in hand: nothing, as they never asked.
struct no_frames {
    explicit no_frames(const flow_switch&) {}
    void keep(flow_switch&) {}
    void update(flow_queue& queue, flow_record& packet, flow_key key) {
        queue_update_locked(queue, packet, key);
    }
};

// Frames travel beside their slots. One side of the ring each on reader and switch thread.
struct frames_beside {
    explicit frames_beside(const flow_switch& sw) : frames(*sw.frames) {}

    // Reader: the frame just parsed, before its slot is committed.
    void keep(flow_switch& sw) {
        const packet_frame frame = parser_position();
        // A slot that is not announced would wait for the switch thread's time-out, and so would
        // we.
        if (!frames.has_room(frame)) [[unlikely]]
            storage_announce_rest(exchange_of(sw));
        frames.put(frame);
    }
    // Switch: a packet with its frame.
    void update(flow_queue& queue, flow_record& packet, flow_key key) {
        {
            const packet_in_hand frame(frames.front());
            queue_update_locked(queue, packet, key);
        }
        frames.drop();
    }

    frame_ring& frames;
};

// Updates the queue with the slot in hand and those that are there after it.
template <typename Frames>
void update_announced(flow_queue& queue, temporal_storage& exchange, const slot_record& packet,
                      Frames& frames, void* slot) {
    queue.lock.lock();
    for (unsigned left = packets_per_lock;;) {
        look_ahead(queue, exchange);
        frames.update(queue, packet.in(slot), exchange_key(queue, slot));
        if (--left == 0 || exchange.consumer.available == 0)
            break;
        slot = storage_get(exchange, 0);
    }
    queue_unlock(queue);
}

template <typename Frames>
[[noreturn]] void empty_exchange(flow_switch& sw) {
    flow_queue& queue = *sw.queue;
    const slot_record packet(queue.record_size);
    Frames frames(sw);
    temporal_storage& exchange = exchange_of(sw);
    for (;;)
        if (void* slot = storage_get(exchange, exchange_timeout_ms))
            update_announced(queue, exchange, packet, frames, slot);
}

// Reading and updating on two threads.
[[noreturn]] void split_loop(flow_switch& sw) {
    const flow_queue& queue = *sw.queue;
    if (sw.needs_packets)
        sw.frames = make_lifelong<frame_ring>();
    auto* const exchange =
        temporal_storage_init(queue.size / exchange_slots_divisor,
                              static_cast<uint32_t>(queue.record_size + sizeof(flow_key)),
                              queue.directory, "parser-xchange");
    sw.exchange.store(exchange, std::memory_order_release);
    if (!start_thread(sw_get_flow_thread, &sw))
        die(exit_config, "Unable to create SW thread");
    if (sw.frames)
        empty_exchange<frames_beside>(sw);
    empty_exchange<no_frames>(sw);
}

// Reading and updating on one thread, so that process plugins see the frame of the record.
[[noreturn]] void direct_loop(flow_switch& sw) {
    auto& record = *static_cast<flow_record*>(malloc_wrapper(sw.queue->record_size, 1));
    while (reads_on(sw)) {
        prepare_slot(record);
        const flow_key key = sw.reader(sw.context, &record);
        if (!occupied(key))
            continue;
        sw.counters.add_flow(record);
        packet_frame frame{};
        frame.data = sw.get_flow_packet(sw.context, &frame.captured_length, &frame.header_length);
        const packet_in_hand in_hand(frame);
        queue_update(sw.queue, &record, key);
    }
    rest();
}

// One frame of a packet input. Returns its key; anything that is not negative: no flow.
inline flow_key read_packet(flow_switch& sw, flow_record& record) {
    const auto& input = *static_cast<const packet_reader*>(sw.context);
    packet_header header{};
    const uint8_t* frame = input.get_packet(input.context, &header);
    return frame ? take_frame(sw.counters, frame, header, input.sampling, record) : 0;
}

// One record of an input that brings its keys.
inline flow_key read_flow(flow_switch& sw, flow_record& record) {
    const flow_key key = sw.reader(sw.context, &record);
    if (occupied(key))
        sw.counters.add_flow(record);
    return key;
}

// A slot of the exchange ring. While there is no room, requests are served: the input counts what
// it drops meanwhile. Null once the input is to be read no more.
inline void* reserve_slot(flow_switch& sw, temporal_storage& exchange) {
    return storage_reserve(
        exchange, [](void* context) { return reads_on(*static_cast<flow_switch*>(context)); }, &sw);
}

// Fills the exchange ring. reader: one of the two above.
template <typename Frames, flow_key reader(flow_switch&, flow_record&)>
[[noreturn]] void fill_exchange(flow_switch& sw) {
    Frames frames(sw);
    const uint64_t key_offset = sw.queue->record_size;
    const slot_record packet(sw.queue->record_size);
    temporal_storage& exchange = exchange_of(sw);
    void* slot = reserve_slot(sw, exchange);
    while (slot != nullptr && reads_on(sw)) {
        flow_record& record = packet.empty(slot);
        prepare_slot(record);
        const flow_key key = reader(sw, record);
        if (!occupied(key))
            continue;
        frames.keep(sw);
        packet.store(slot);
        store_native(static_cast<uint8_t*>(slot) + key_offset, key);
        storage_commit(exchange);
        slot = reserve_slot(sw, exchange);
    }
    storage_announce_rest(exchange);
    rest();
}

// How a record comes out of an input plugin. First match wins.
enum class input_mode { packets = 3, flows = 4, final_flows, none };

input_mode mode_of(const input_plugin& input) {
    if (input.get_packet)
        return input_mode::packets;
    if (input.get_flow)
        return input_mode::flows;
    return input.get_final_flow ? input_mode::final_flows : input_mode::none;
}

void refuse_impossible(input_mode mode, bool needs_packets, const input_plugin& input) {
    if (mode == input_mode::none)
        die(exit_config, "Invalid input plugin");
    if (!needs_packets)
        return;
    if (mode == input_mode::flows && !input.get_flow_packet)
        die(exit_config,
            "Process plugin needs packets, but selected input mode is not able to provide it!");
    if (mode == input_mode::final_flows)
        die(exit_config,
            "Process plugin needs packets, but selected input mode using final flows!");
}

bool init_input(input_mode mode, bool needs_packets, input_plugin& input) {
    if (mode == input_mode::final_flows)
        verbose_msg(3, "trying to init final flow plugin");
    else
        verbose_msg(3, "trying to init plugin: %i", static_cast<int>(mode));
    return switch_init_input(needs_packets, input);
}

}  // namespace

bool switch_init_input(bool needs_packets, input_plugin& input) {
    input.instance = input.init(input.params, needs_packets, input.data_offset);
    if (!input.instance) {
        verbose_msg(-1, "Unable to init plugin");
        return false;
    }
    verbose_msg(0, "Plugin OK");
    return true;
}

std::vector<temporal_storage*> final_rings(const flow_switch& first) {
    std::vector<temporal_storage*> rings;
    for (const flow_switch* sw = &first; sw; sw = sw->next_lane)
        rings.push_back(sw->queue->final_storage);
    return rings;
}

void switch_connect(flow_switch& sw, flow_queue* queue, const input_plugin& input, uint32_t lane) {
    sw.queue = queue;
    sw.counters = input_counters(metrics_label(), lane == 0);
    sw.instance = input.instance;
    sw.context = input.instance;
    sw.lane = lane;
}

namespace {

void update_interfaces(const flow_switch& sw) {
    interface_update update;
    sw.interfaces(
        sw.instance,
        [](void* context, const input_interface* told) {
            static_cast<interface_update*>(context)->tell(told->number, told->name,
                                                          told->description);
        },
        &update);
}

// Takes the request to count, and counts. Returns all requests that there were.
uint32_t count_what_is_undelivered(flow_switch& sw) {
    const uint32_t requests = sw.requests.fetch_and(~count_undelivered, std::memory_order_relaxed);
    if (sw.counts != nullptr) {
        input_counts now{};
        now.is_up = 1;
        sw.counts(sw.instance, sw.lane, &now);
        sw.counters.take(now);
    }
    if (sw.interfaces != nullptr && are_interfaces_wanted())
        update_interfaces(sw);
    return requests;
}

}  // namespace

void serve_request_to_count(flow_switch& sw) {
    if ((sw.requests.load(std::memory_order_relaxed) & count_undelivered) != 0)
        count_what_is_undelivered(sw);
}

[[gnu::noinline]] bool serve_requests(flow_switch& sw) {
    const uint32_t requests = count_what_is_undelivered(sw);
    const bool is_last = (requests & close_input) != 0;
    if (is_last) {
        sw.counters.set_down();
        sw.is_closed.store(true, std::memory_order_release);
    }
    return !is_last;
}

void switch_take_operations(flow_switch& sw, const plugin_operations& input) {
    sw.counts = input.counters;
    if (sw.counts != nullptr)
        sw.counters.expect_counts(metrics_label());
    sw.interfaces = sw.lane == 0 ? input.interfaces : nullptr;
}

void observe_input(const flow_switch& sw, const input_plugin& input,
                   const plugin_operations& operations) {
    // Where frames are parsed here the rate is read already, and it is to be read once.
    const bool has_rate = sw.reader == nullptr || sw.reader == packet_to_flow_reader;
    const int32_t* const is_random = operations.is_sampling_random;
    observation_set_sampling({.rate = has_rate ? sw.sampling : input.sampling(input.instance),
                              .is_random = is_random != nullptr && *is_random != 0,
                              .is_in_records = !has_rate});
    if (sw.interfaces != nullptr)
        update_interfaces(sw);
}

void* sw_split_loop(void* argument) {
    name_thread("switch");
    split_loop(*static_cast<flow_switch*>(argument));
}

void* sw_direct_loop(void* argument) {
    name_thread("switch");
    direct_loop(*static_cast<flow_switch*>(argument));
}

}  // namespace kestrel

using namespace kestrel;

packet_reader* plugin_flow_reader_init(const input_plugin* input) {
    return make_lifelong<packet_reader>(input->sampling(input->instance), input->instance,
                                        input->get_packet);
}

flow_switch* sw_init(flow_queue* queue, uint32_t flow_mask, int needs_packets,
                     input_plugin* input) {
    parser_set_flow_mask(flow_mask);
    const input_mode mode = mode_of(*input);
    refuse_impossible(mode, needs_packets != 0, *input);
    if (!init_input(mode, needs_packets != 0, *input))
        return nullptr;
    auto* sw = make_lifelong<flow_switch>();
    switch_connect(*sw, queue, *input, 0);
    sw->needs_packets = needs_packets != 0;
    if (mode == input_mode::packets) {
        sw->reader = packet_to_flow_reader;
        packet_reader* const reader = plugin_flow_reader_init(input);
        sw->context = reader;
        sw->sampling = reader->sampling;
    } else if (mode == input_mode::flows) {
        sw->reader = input->get_flow;
        sw->get_flow_packet = input->get_flow_packet;
    } else {
        sw->reader = input->get_final_flow;
    }
    return sw;
}

void* sw_main_loop(void* argument) {
    const auto& sw = *static_cast<flow_switch*>(argument);
    const bool shows_frames = sw.queue->plugin_count != 0 && sw.get_flow_packet;
    return (shows_frames ? sw_direct_loop : sw_split_loop)(argument);
}

void* sw_get_flow_thread(void* argument) {
    auto& sw = *static_cast<flow_switch*>(argument);
    name_thread("reader");
    if (sw.reader != packet_to_flow_reader)
        fill_exchange<no_frames, read_flow>(sw);
    if (sw.frames)
        fill_exchange<frames_beside, read_packet>(sw);
    fill_exchange<no_frames, read_packet>(sw);
}

void* plugin_final_flow_loop(void* argument) {
    auto& sw = *static_cast<flow_switch*>(argument);
    name_thread("final flows");
    temporal_storage& storage = *sw.queue->final_storage;
    const slot_record flow(sw.queue->record_size);
    void* slot = storage_reserve(storage);
    while (reads_on(sw)) {
        flow_record& record = flow.empty(slot);
        prepare_slot(record);
        if (sw.reader(sw.context, &record) != 0)
            continue;
        sw.counters.add_flow(record);
        flow.store(slot);
        storage_commit(storage);
        slot = storage_reserve(storage);
    }
    rest();
}
