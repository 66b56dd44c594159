// The Community ID of a flow, version 1: a text that all programs that know it give to both
// directions of a conversation. No state; any thread.
#pragma once

#include <kestrelexp/record.h>

#include <cstddef>
#include <cstdint>

namespace flow_encoding {

// "1:" and 20 bytes in base64.
inline constexpr size_t community_id_length = 2 + 28;

// Writes community_id_length characters. seed: what tells the networks of different owners apart.
void put_community_id(char* to, const flow_record& record, uint16_t seed);

}  // namespace flow_encoding
