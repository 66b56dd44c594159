// The switch: connects the input plugin to the flow cache. Its functions are in kestrelexp/flow.h;
// here is the object that they share.
//
// Threads: with packet inputs (and whenever reading and updating can be split) a reader thread
// calls the input, parses, and fills "parser-xchange", and the switch thread empties it into the
// queue. With process plugins that need the packet behind each record, the switch thread does both.
// Inputs of finished flows bypass the queue: one thread fills "final-records". Inputs that bring
// their own clock are read by replay_loop.
#pragma once

#include "flow/flow_cache.h"
#include "flow/ring.h"
#include "kestrelexp/flow.h"

struct flow_switch {
    input_flow_function* reader;                  // fills a record and returns its key
    input_flow_packet_function* get_flow_packet;  // may be null
    input_clock_function* clock;                  // may be null; see replay.h
    void* context;                                // first argument of both
    temporal_storage* exchange;                   // made by the split form of sw_main_loop
    flow_queue* queue;
};
