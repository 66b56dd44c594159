// SHA-1 (RFC 3174) of short messages, as the Community ID wants it: no secret depends on it. No
// state; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace flow_encoding {

// What fits into one block with its padding.
inline constexpr size_t sha1_message_limit = 55;

using sha1_digest = std::array<uint8_t, 20>;

// message: sha1_message_limit bytes at most.
sha1_digest sha1_of(std::span<const uint8_t> message);

}  // namespace flow_encoding
