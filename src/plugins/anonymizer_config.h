// The anonymizer's parameter text. Main thread, while the program starts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "plugins/anonymizer.h"

namespace kestrel {

inline constexpr size_t anonymizer_key_size = 16;

// "MASK:address/bits,..." or "AES:field,...[:key]". Reports what is wrong; text may be null.
std::optional<anonymizer_state> read_anonymizer_params(const char* text);

// A key for this run alone: time (bytes 0 to 7), process (10 to 13) and what the system's random
// source gives. Returns whether the source gave anything.
bool make_anonymizer_key(uint8_t (&key)[anonymizer_key_size]);

}  // namespace kestrel
