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
    kestrel::frame_ring* frames;       // made by sw_split_loop when frames are needed, else null
    bool needs_packets;                // some process plugin looks at the packet of each record
    kestrel::input_counters counters;  // written by the thread that calls the input
    // Set when the program ends, so that the packets can be summed up: nothing more is read from
    // the input. Carries no data: relaxed.
    std::atomic<bool> is_closed;
};

namespace kestrel {

// The two forms of sw_main_loop (kestrelexp/flow.h), which chooses between them: reading and
// updating on two threads, or on one. Thread bodies; argument: the switch. They never return.
void* sw_split_loop(void* flow_switch);
void* sw_direct_loop(void* flow_switch);

}  // namespace kestrel
