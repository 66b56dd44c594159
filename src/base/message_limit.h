// Lets a message that repeats itself through once in ten seconds, with the number of times that it
// came up. One thread at a time; takes no lock, reads no clock.
#pragma once

#include <cstdint>
#include <utility>

#include "base/clock.h"

namespace kestrel {

class message_limit {
  public:
    static constexpr uint64_t period_ns = 10 * ns_per_second;

    // The message has come up, at uptime_ns (system_uptime_ns). Returns how often it did since it
    // was last said, this time included, when it may be said now; else 0. The first time is said
    // at once.
    uint64_t count(uint64_t uptime_ns) {
        count_ += 1;
        if (uptime_ns < next_ns_)
            return 0;
        next_ns_ = uptime_ns + period_ns;
        return std::exchange(count_, 0);
    }

  private:
    uint64_t count_ = 0;
    uint64_t next_ns_ = 0;
};

}  // namespace kestrel
