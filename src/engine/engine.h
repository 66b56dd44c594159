// A way of running: which threads do what, what the rings carry, and which clock rules. One row of
// a table for each; main picks one and follows it, and nobody else asks which one it is.
#pragma once

#include <cstdint>

#include "contract/operations.h"
#include "engine/run_configuration.h"
#include "kestrelexp/flow.h"

namespace kestrel {

struct engine {
    const char* name;
    // Whether it can serve the chosen input (null: none was chosen). The first row that can is
    // used.
    bool (*serves)(const run_configuration& run, const input_plugin* input);
    // Exponent of the flow cache's slots, from the one that the user chose.
    int32_t (*queue_size)(int32_t chosen);
    // Bytes that stand after the record in each slot of "final-records".
    uint32_t slot_extra;
    // queue_init (kestrelexp/flow.h) or another function of its form.
    decltype(&queue_init) make_queue;
    // Initialises the input. sw_init (kestrelexp/flow.h) or another function of its form.
    decltype(&sw_init) make_switch;
    // Once the input is initialised, in the scope of its metrics label, and before any other
    // thread runs but the remover.
    void (*prepare)(flow_switch& flow_switch, const run_configuration& run);
    // Body of the flow thread; argument: the switch.
    void* (*flow_thread)(void* flow_switch);
    // Runs on the main thread; comes back only when a global filter rejects a record.
    decltype(&main_record_loop) record_loop;
    // What an interrupt and a jump of the wall clock ask of it. From the signal handler.
    void (*stop)();
    void (*follow_clock_jump)();
};

// The row for the input that was chosen.
const engine& engine_for(const run_configuration& run);

// The input that was chosen; null when none was.
input_plugin* chosen_input(const run_configuration& run);

}  // namespace kestrel
