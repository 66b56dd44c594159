// Ageing of the flow cache: flows leave when nothing more is heard of them, when the program
// flushes them, and the operator gets a line of statistics.
//
// The rules are functions of (queue, now) that take no lock, read no clock and never sleep; the
// remover thread (queue_remover in kestrelexp/flow.h) calls them with the lock held and the clock
// read. Most of the idle scan is done by the packet path, one slot a packet; the rules here restart
// it and finish it when packets have stopped.
#pragma once

#include <cstdint>
#include <span>

#include "flow/flow_cache.h"

namespace kestrel {

// Starts the idle scan anew. Where the packet path has not completed the last one, the third time
// in a row finishes it here; the first two make the path finish it with its next packet.
void queue_restart_scan(flow_queue& queue, uint64_t now);

// Where the ageing of a queue stands. A pass is about a quarter of the inactive timeout, counted in
// ticks of 10 ms; at its end the idle scan is started anew and statistics are printed when due.
struct ageing {
    uint64_t ticks_left;  // of the pass
};

inline constexpr uint64_t tick_ns = 10'000'000;

// Ticks of one pass.
uint64_t queue_pass_ticks(const flow_queue& queue);

// So many passes in a row, without a packet and without a flow to age, leave the ageing as it was:
// every third one finishes its scan itself.
inline constexpr uint64_t idle_passes_cycle = 3;

// The ageing of a queue from now on.
inline ageing queue_start_ageing(const flow_queue& queue) {
    return {queue_pass_ticks(queue)};
}

// The first line of statistics is an interval away from now (ns); tells of the timeouts at level 0.
void queue_start_statistics(flow_queue& queue, uint64_t now);

// So many ticks have passed, at most those left of the pass; it is now (ns). Returns whether the
// pass has ended, which is when a line of statistics may be due.
bool queue_age(flow_queue& queue, ageing& state, uint64_t ticks, uint64_t now);

// Flushes the queues when a flush is pending (flush_request.h), again while requests come in
// meanwhile. Whoever waits for the flushed records counts them: they are in the final storage by
// then, and nobody has to take them for the request to be done. Returns whether there was one.
bool serve_flush_request(std::span<flow_queue* const> queues);
inline bool queue_serve_flush_request(flow_queue& queue) {
    flow_queue* const queues[] = {&queue};
    return serve_flush_request(queues);
}

// A tick of the system's clock for queues that age by it: sleeps, then sets their clocks.
// Returns now (ns).
uint64_t tick(std::span<flow_queue* const> queues);

}  // namespace kestrel
