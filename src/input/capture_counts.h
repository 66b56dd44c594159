// What becomes of the frames of a capture by the kernel's numbers and ours, over all its interfaces
// and handles: 64 bits, from numbers that have 32 and may begin anew. One thread.
#pragma once

#include <cstdint>
#include <utility>

namespace kestrel {

// As a handle tells them, since it was opened.
struct capture_numbers {
    uint32_t received;      // those dropped for want of room are among them
    uint32_t ring_dropped;  // for want of room
    uint32_t card_dropped;  // before that, by the interface's own counters
};

class capture_counts {
  public:
    void add_delivered() { delivered_ += 1; }

    // The handle's numbers just now; asked for before one of them has come full circle. Those of
    // the interface go back when another one takes its place.
    void take(const capture_numbers& now) {
        received_ += now.received - seen_.received;
        ring_dropped_ += now.ring_dropped - seen_.ring_dropped;
        const auto card_step = static_cast<int32_t>(now.card_dropped - seen_.card_dropped);
        card_dropped_ += card_step > 0 ? static_cast<uint64_t>(card_step) : 0;
        seen_ = now;
    }

    // Another handle, whose numbers begin at 0. What was left in the old one's ring is lost.
    void begin_anew() {
        ring_dropped_ += unread();
        seen_ = {};
    }

    uint64_t ring_dropped() const { return ring_dropped_; }
    uint64_t card_dropped() const { return card_dropped_; }
    // Frames in the capture ring at the last take().
    uint64_t unread() const {
        const uint64_t gone = ring_dropped_ + delivered_;
        return received_ > gone ? received_ - gone : 0;
    }

  private:
    capture_numbers seen_{};
    uint64_t received_ = 0;
    uint64_t ring_dropped_ = 0;
    uint64_t card_dropped_ = 0;
    uint64_t delivered_ = 0;
};

}  // namespace kestrel
