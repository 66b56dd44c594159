// What has become of the interface that an input captures from, told by its index, as far as events
// and looks have shown. Decides which changes are worth a line; touches nothing and reads no clock.
#pragma once

#include <cstdint>

#include "base/clock.h"

namespace kestrel {

enum class link_change : uint8_t {
    none,
    went_down,
    came_up,
    went_down_and_up,
};

class link_state {
  public:
    // An interface that is deleted or moved goes down first. A change that lasts shorter than this
    // is the beginning of the next one.
    static constexpr uint64_t settling_ns = 100 * ns_per_ms;

    // The capture is bound to the interface of this index, which is up.
    void attach(int index) {
        index_ = index;
        is_up_ = true;
    }

    bool is_gone() const { return index_ == 0; }
    bool is_up() const { return index_ != 0 && is_up_; }
    int index() const { return index_; }  // 0: gone

    // It was deleted, moved to another namespace, or its name is not ours any more.
    void lose() { index_ = 0; }

    // The interface of this index is up, or not, at uptime_ns. Others are passed over.
    link_change note(int index, bool is_up, uint64_t uptime_ns) {
        if (is_gone() || index != index_ || is_up == is_up_)
            return link_change::none;
        is_up_ = is_up;
        if (!is_up) {
            is_down_said_ = false;
            down_since_ns_ = uptime_ns;
            return link_change::none;
        }
        return is_down_said_ ? link_change::came_up : link_change::went_down_and_up;
    }

    // Time has come to uptime_ns.
    link_change pass(uint64_t uptime_ns) {
        if (is_gone() || is_up_ || is_down_said_ || uptime_ns - down_since_ns_ < settling_ns)
            return link_change::none;
        is_down_said_ = true;
        return link_change::went_down;
    }

  private:
    int index_ = 0;
    bool is_up_ = false;
    bool is_down_said_ = false;
    uint64_t down_since_ns_ = 0;
};

}  // namespace kestrel
