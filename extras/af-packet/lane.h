// One lane: its ring on each device, walked in turn. One thread.
#pragma once

#include <kestrelexp/metrics.h>
#include <kestrelexp/plugin.h>
#include <poll.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "device.h"

namespace af_packet {

using device_list = std::vector<std::unique_ptr<device>>;

class lane {
  public:
    // While the program starts: registers what the lane counts.
    lane(uint32_t number, const device_list& devices);

    // As input_batch_function and input_counters_function have it.
    uint32_t take(input_frame* frames, uint32_t limit);
    void count(input_counts& counts);

  private:
    // The lane's side of a device.
    struct port {
        device* of;
        metric_cell* joined;
        metric_cell* taken;
        metric_cell* ring_dropped;
        metric_cell* card_dropped;  // lane 0 has it
        uint64_t taken_before;      // from rings that were closed
        uint64_t taken_told;
        uint64_t dropped_before;  // by these
        uint64_t dropped_told;
        uint64_t card_told;
        uint64_t blocks_before;  // of the ring, up to the last wait
    };

    packet_ring* ring(const port& at) const { return at.of->ring(number_); }
    void give_back();
    uint32_t take_what_is_there(input_frame* frames, uint32_t limit);
    void wait();
    uint64_t gathering_ns();
    void take_errors();
    void close_if_wanted(port& at);
    void count_port(port& at, input_counts& counts);
    void count_device(port& at, input_counts& counts);

    uint32_t number_;
    std::vector<port> ports_;
    std::vector<pollfd> waits_;  // by port
    size_t turn_ = 0;            // the port that is first
    uint64_t asked_ns_ = 0;      // uptime of the last gathering_ns()
};

}  // namespace af_packet
