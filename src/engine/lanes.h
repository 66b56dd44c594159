// Lanes: inputs with queues that give batches (input_batch_function in kestrelexp/plugin.h). Each
// queue is a lane: one thread that reads a batch, parses it, updates a flow cache of its own and
// puts finished flows into a ring of its own. Lanes share nothing per packet. The -q slots are
// shared out among them; one remover ages all caches, and the record loop takes from all rings.
//
// A lane is a flow_switch; those of one input are a list that begins with lane 0.
#pragma once

#include "engine/run_configuration.h"
#include "engine/switch.h"
#include "flow/flow_cache.h"

namespace kestrel {

// sw_init (kestrelexp/flow.h) for an input with batches, of lanes or of a replay.
flow_switch* lanes_switch_init(flow_queue* queue, uint32_t flow_mask, int needs_packets,
                               input_plugin* input);

// Asks the input for its queues and makes the other lanes. Ends the program when the flow cache is
// too small for them.
void lanes_prepare(flow_switch& first, const run_configuration& run);

// Thread body; argument: the switch of lane 0. Starts the remover and the other lanes, and runs
// lane 0 for good.
void* lanes_loop(void* first);

}  // namespace kestrel
