// The switch: connects the input plugin to the flow cache. Its functions are in kestrelexp/flow.h;
// here is the object that they share.
//
// Threads: with packet inputs (and whenever reading and updating can be split) a reader thread
// calls the input, parses, and fills "parser-xchange", and the switch thread empties it into the
// queue. With process plugins and an input that can show the frame of each record, the switch
// thread does both. Inputs of finished flows bypass the queue: one thread fills "final-records".
// Inputs that bring their own clock are read by replay_loop.
#pragma once

#include <atomic>
#include <vector>

#include "contract/operations.h"
#include "flow/flow_cache.h"
#include "flow/flow_counters.h"
#include "flow/frame_ring.h"
#include "flow/ring.h"
#include "kestrelexp/flow.h"

struct flow_switch {
    input_flow_function* reader;                  // fills a record and returns its key
    input_flow_packet_function* get_flow_packet;  // may be null
    input_clock_function* clock;                  // may be null; see replay.h
    void* context;                                // first argument of both
    // Made by sw_split_loop, else null. The main thread looks at it for the sum of packets; release
    // and acquire, so that it finds the ring complete.
    std::atomic<temporal_storage*> exchange;
    flow_queue* queue;
    kestrel::frame_ring* frames;      // made by sw_split_loop when frames are needed, else null
    bool needs_packets;               // some process plugin looks at the packet of each record
    void* instance;                   // of the input
    uint32_t lane;                    // queue of the input; see lanes.h
    input_batch_function* get_batch;  // of inputs with queues, else null
    uint32_t sampling;                // of the input, where it gives frames
    flow_switch* next_lane;           // of the same input; null after the last
    input_counters_function* counts;  // what it did not deliver; may be null
    input_interfaces_function* interfaces;  // that it captures from; null: lane 0 tells, or nobody
    kestrel::input_counters counters;       // written by the thread that calls the input
    // A sum of kestrel::reader_request, for the thread that calls the input; it looks at them
    // between two packets. They carry no data: relaxed.
    std::atomic<uint32_t> requests;
    // Set by that thread once it reads no more; release, after it has counted for the last time.
    std::atomic<bool> is_closed;
};

namespace kestrel {

enum reader_request : uint32_t {
    count_undelivered = 1,  // ask the input what it did not deliver
    close_input = 2,        // and read no more, as the program ends
};

// Any thread. Asks the reader of each lane, from this one on.
inline void ask_reader(flow_switch& first, reader_request request) {
    for (flow_switch* sw = &first; sw; sw = sw->next_lane)
        sw->requests.fetch_or(request, std::memory_order_relaxed);
}

// What is left to do for the thread that calls the input, once there is a request. Returns whether
// it reads on.
bool serve_requests(flow_switch& sw);

// Serves a request to count, if there is one: for the same thread while it has a packet in hand,
// and cannot close the input.
void serve_request_to_count(flow_switch& sw);

// Whether the thread that calls the input has served the last request to count, or need not: an
// input that has not promised to come back now and then, or that reads a file, may wait for long.
// Any thread.
inline bool has_reader_served(const flow_switch& sw) {
    const bool is_bound = sw.counts != nullptr && sw.clock == nullptr;
    return !is_bound || (sw.requests.load(std::memory_order_relaxed) & count_undelivered) == 0 ||
           sw.is_closed.load(std::memory_order_relaxed);
}

// Between two packets. Cost: one load of a word that hardly ever changes.
inline bool reads_on(flow_switch& sw) {
    if (sw.requests.load(std::memory_order_relaxed) == 0) [[likely]]
        return true;
    return serve_requests(sw);
}

// The rings of finished flows of all lanes, from this one on.
std::vector<temporal_storage*> final_rings(const flow_switch& first);

// Fills a new switch for an input that is initialised, in the scope of the input's metrics label.
void switch_connect(flow_switch& sw, flow_queue* queue, const input_plugin& input, uint32_t lane);

// Initialises the input plugin. Returns whether it could.
bool switch_init_input(bool needs_packets, input_plugin& input);

// What the input offers beyond its entry points. While the program starts, in the scope of the
// input's metrics label.
void switch_take_operations(flow_switch& sw, const plugin_operations& input);

// Writes down how the input samples and which interfaces it has. While the program starts.
void observe_input(const flow_switch& sw, const input_plugin& input,
                   const plugin_operations& operations);

// The two forms of sw_main_loop (kestrelexp/flow.h), which chooses between them: reading and
// updating on two threads, or on one. Thread bodies; argument: the switch. They never return.
void* sw_split_loop(void* flow_switch);
void* sw_direct_loop(void* flow_switch);

}  // namespace kestrel
