// How long an export waits before it tries to connect again.
#pragma once

#include <algorithm>
#include <cstdint>

#include "base/clock.h"

namespace kestrel {

// After this many failures in a row (from 0): 1 s, 2 s, 4 s and so on up to 60 s, each by up to a
// quarter shorter or longer, so that probes that lost their collector together do not come back
// together. random: of 32 even bits.
constexpr uint64_t backoff_ns(unsigned failures, uint32_t random) {
    constexpr uint64_t longest_s = 60;
    constexpr unsigned doublings = 6;
    const uint64_t pause_s = std::min(longest_s, uint64_t{1} << std::min(failures, doublings));
    const uint64_t pause_ns = pause_s * ns_per_second;
    // Half of the pause times the random number's share of 2^32.
    return pause_ns - pause_ns / 4 + (((pause_ns / 2) >> 8) * random >> 24);
}

}  // namespace kestrel
