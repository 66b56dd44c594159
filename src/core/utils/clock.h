// The clock functions of service.h, and the units that go with them. All time that the program
// sees comes through these functions.
#pragma once

#include <cstdint>

#include "kestrelexp/service.h"

namespace kestrel {

inline constexpr uint64_t ns_per_second = 1'000'000'000;
inline constexpr uint64_t ns_per_ms = 1'000'000;
inline constexpr uint64_t ns_per_us = 1'000;

}  // namespace kestrel
