// Replays: inputs that bring their own clock (input_clock_function in kestrelexp/plugin.h), so that
// hours of packets pass in seconds and give the flows that they gave when they were captured.
//
// One thread reads, parses, updates the queue and ages it as the packets' times go on: no exchange
// ring and no remover thread. Finished flows go to the record loop through "final-records" as ever,
// each with a stamp after it that says when it left, which is what the record loop and the exports
// take for the time. So the two threads never wait for each other, and two runs over the same
// packets are equal to the byte.
#pragma once

#include <cstdint>

#include "contract/operations.h"
#include "engine/replay_stamp.h"
#include "engine/switch.h"
#include "flow/flow_cache.h"

namespace kestrel {

// queue_init (kestrelexp/flow.h) for a replay: no remover thread, and finished flows are stamped.
// The slots of final_storage have room for a replay_stamp after the record.
flow_queue* replay_queue_init(int32_t size_exponent, int32_t active_s, int32_t inactive_s,
                              temporal_storage* final_storage, const char* directory,
                              uint64_t data_size, int32_t plugin_count, process_plugin* plugins);

// sw_init (kestrelexp/flow.h) for an input that gives single packets or batches of them.
flow_switch* replay_switch_init(flow_queue* queue, uint32_t flow_mask, int needs_packets,
                                input_plugin* input);

// Lets the switch ask the input for its clock and its batches, and puts the packet clock in place
// of the system's, at the time of the first packet to come. The input is initialised.
void replay_start_clock(flow_switch& sw, const plugin_operations& input);

// Has the replay end after the packets in hand, as if its input had ended. An input that waits sees
// a request for a flush. Any thread; signal handlers too.
void replay_stop();

// Thread body; argument: the switch of an input with a clock. Never returns: after the last flow
// it puts the slot that says so, and sleeps.
void* replay_loop(void* flow_switch);

}  // namespace kestrel
