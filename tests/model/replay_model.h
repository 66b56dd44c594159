// A second replay: the model of the parser and the model of the flow cache on the time of the
// packets, tick by tick and pass by pass. The tests hold the program's replays against it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/model/queue_model.h"

namespace kestrel_model {

struct replay_settings {
    int exponent = 19;
    uint64_t active_s = 180;
    uint64_t inactive_s = 10;
    uint32_t mask = 0x77;
    uint16_t sampling = 0;
    std::vector<process_plugin> plugins = {};
    size_t data_size = 0;
};

// A flow, and when it left (ns).
struct finished_flow {
    model_record record;
    uint64_t left_at;
};

// All that is defined of a flow's record, in one line. (The ICMP type and code are the first 16
// bits of the transport header, as the source port is.)
std::string describe(const flow_record& flow);

class replay_model {
  public:
    // first_ns: the time of the first packet.
    replay_model(const replay_settings& settings, uint64_t first_ns);

    void take(const std::vector<uint8_t>& frame, uint64_t time_ns);
    // The input ends at this time, or at that of the latest packet.
    void end(uint64_t time_ns);

    std::vector<finished_flow> finished;
    uint64_t frames = 0;
    uint64_t no_flow = 0;

    const queue_model::happenings& happened() const { return queue_.happened; }

  private:
    void advance_to(uint64_t time_ns);
    void end_tick();
    void collect();

    replay_settings settings_;
    queue_model queue_;
    uint64_t pass_ticks_;
    uint64_t ticks_left_;
    uint64_t tick_time_;  // of the latest tick, ns
    uint64_t time_;       // the latest time seen, ns
};

}  // namespace kestrel_model
