// The table of the ways of running. Main thread, while the program starts.
#include "base/packet_clock.h"
#include "engine/engine.h"
#include "engine/lanes.h"
#include "engine/record_loop.h"
#include "engine/replay.h"
#include "engine/signals.h"
#include "engine/switch.h"
#include "flow/flush_request.h"

namespace kestrel {

namespace {

// Inputs that deliver finished flows need no more than a token flow cache.
constexpr int32_t token_queue_size = 5;

int32_t chosen_size(int32_t chosen) {
    return chosen;
}

int32_t token_size(int32_t) {
    return token_queue_size;
}

bool has_clock(const run_configuration& run, const input_plugin* input) {
    return input != nullptr && operations_of(run.registry, input->desc).clock != nullptr;
}

bool delivers_final_flows(const run_configuration&, const input_plugin* input) {
    return input != nullptr && input->get_final_flow != nullptr;
}

// Process plugins see the frame of each record where the input can show it.
bool shows_frames(const run_configuration& run, const input_plugin* input) {
    return input != nullptr && input->get_flow_packet != nullptr && !run.processes.empty();
}

bool serves_all(const run_configuration&, const input_plugin*) {
    return true;
}

void prepare_nothing(flow_switch&, const run_configuration&) {}

void start_clock(flow_switch& sw, const run_configuration& run) {
    replay_start_clock(sw, operations_of(run.registry, chosen_input(run)->desc));
}

bool gives_batches(const run_configuration& run, const input_plugin* input) {
    return input != nullptr && operations_of(run.registry, input->desc).get_batch != nullptr;
}

// The time of a replay runs faster than any clock; jumps of the wall clock are not its own.
void ignore_clock_jump() {}

constexpr engine engines[] = {
    {"replay", has_clock, chosen_size, sizeof(replay_stamp), replay_queue_init, replay_switch_init,
     start_clock, replay_loop, replay_record_loop, replay_stop, ignore_clock_jump},
    {"lanes", gives_batches, chosen_size, 0, queue_init_unaged, lanes_switch_init, lanes_prepare,
     lanes_loop, main_record_loop, request_flush, flush_for_clock_jump},
    {"final flows", delivers_final_flows, token_size, 0, queue_init, sw_init, prepare_nothing,
     plugin_final_flow_loop, main_record_loop, request_flush, flush_for_clock_jump},
    {"direct", shows_frames, chosen_size, 0, queue_init, sw_init, prepare_nothing, sw_direct_loop,
     main_record_loop, request_flush, flush_for_clock_jump},
    {"split", serves_all, chosen_size, 0, queue_init, sw_init, prepare_nothing, sw_split_loop,
     main_record_loop, request_flush, flush_for_clock_jump},
};

}  // namespace

input_plugin* chosen_input(const run_configuration& run) {
    return run.input_index < 0 ? nullptr : &run.registry.inputs[run.input_index];
}

const engine& engine_for(const run_configuration& run) {
    const input_plugin* const input = chosen_input(run);
    const engine* row = engines;
    while (!row->serves(run, input))
        ++row;
    return *row;
}

}  // namespace kestrel
