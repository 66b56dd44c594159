// When an export sends options records: a round of messages at the start, in every period, after
// each new connection, and when something that was told has changed. The messages of a round are
// paced, so that hundreds of interfaces do not overrun a receiver. Reads no clock: times are ns on
// one clock that never runs backwards.
#pragma once

#include <algorithm>
#include <cstdint>

#include "base/clock.h"

namespace kestrel {

class options_schedule {
  public:
    static constexpr uint64_t message_pause_ns = 10 * ns_per_ms;
    // Between the beginnings of two rounds for connections that were made again, and from any round
    // to one for a change: what flaps costs a round a second.
    static constexpr uint64_t round_pause_ns = ns_per_second;

    explicit options_schedule(uint64_t period_ns) : period_ns_(period_ns) {}

    // A new connection: what was under way begins anew.
    void note_connection() {
        is_connection_new_ = true;
        is_under_way_ = false;
    }
    // What was told has changed; may be called again and again.
    void note_change() { has_changed_ = true; }

    bool is_due(uint64_t now_ns) const { return now_ns >= next_ns(); }
    // When the next message is due, as things are.
    uint64_t next_ns() const {
        if (is_under_way_)
            return last_message_ns_ + message_pause_ns;
        uint64_t next = next_period_ns_;
        if (is_connection_new_)
            next = std::min(next, next_connection_ns_);
        if (has_changed_)
            next = std::min(next, last_round_ns_ + round_pause_ns);
        return next;
    }

    // Before a message that is due: whether a round begins with it.
    bool begins_round() const { return !is_under_way_; }
    void begin_round(uint64_t now_ns) {
        if (is_connection_new_ && !is_first_)
            next_connection_ns_ = now_ns + round_pause_ns;
        is_first_ = false;
        is_connection_new_ = has_changed_ = false;
        is_under_way_ = true;
        last_round_ns_ = now_ns;
        next_period_ns_ = now_ns + period_ns_;
    }
    // After it.
    void note_message(uint64_t now_ns, bool is_last) {
        last_message_ns_ = now_ns;
        is_under_way_ = !is_last;
    }

  private:
    uint64_t period_ns_;
    bool is_first_ = true;
    bool is_connection_new_ = true;
    bool has_changed_ = false;
    bool is_under_way_ = false;
    uint64_t next_period_ns_ = 0;
    uint64_t next_connection_ns_ = 0;
    uint64_t last_round_ns_ = 0;
    uint64_t last_message_ns_ = 0;
};

}  // namespace kestrel
