// The "sampling" parameter of the built-in inputs. Start-up only.
#pragma once

#include <cstdint>

#include "base/log.h"

namespace kestrel {

// The 1-in-N rate that a parameter asks for. A rate that hardly anybody can mean (a negative number
// is a large one) is doubted aloud, and used.
inline uint32_t sampling_rate(int32_t parameter) {
    constexpr uint32_t believable = 1000;
    const auto rate = static_cast<uint32_t>(parameter);
    if (rate > believable)
        verbose_msg(-1, "Sampling set to unbelievable value: %i", parameter);
    return rate;
}

}  // namespace kestrel
