// Values of filter rules as numbers. What plugins may use of it is in kestrelexp/filter.h.
#pragma once

#include <cstdint>
#include <optional>

namespace kestrel {

// The number that a text of nothing but digits stands for; beyond 63 bits, the largest of them.
std::optional<int64_t> all_digits(const char* text);

}  // namespace kestrel
