// The queue of an export. In a replay, which can wait, it loses nothing to a reader who is merely
// slower than the replay.
#pragma once

#include <kestrelexp/outlet.h>

#include <cstdint>

namespace flow_encoding {

class patient_queue {
  public:
    // For how long nothing may leave a full queue.
    static constexpr uint64_t usual_patience_ns = 10'000'000'000;

    explicit patient_queue(uint64_t patience_ns = usual_patience_ns) : patience_ns_(patience_ns) {}

    // As outlet_open: once, while the program starts.
    void open(const outlet_owner& owner, uint64_t capacity, uint32_t drain_s);

    // As outlet_offer. In a replay it waits for room, as long as messages leave the queue. Once
    // none has left for the time of patience it waits no more until one has, so that a reader who
    // is stuck costs this time once.
    bool offer(const outlet_message& message);

  private:
    bool has_room(uint32_t length, const outlet_counts& counts) const;
    void wait_for_room(uint32_t length);

    const uint64_t patience_ns_;
    outlet* queue_ = nullptr;
    uint64_t capacity_ = 0;  // bytes
    uint64_t left_ = 0;      // messages that had left when it was looked last
    bool is_stuck_ = false;  // none has since patience was lost
};

}  // namespace flow_encoding
