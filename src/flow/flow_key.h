// The two hash steps of the flow key, built on the slicing-by-4 tables of the reflected
// CRC-64/ECMA-182.
//
// Both steps shift the state left where a reflected CRC would shift right: the key is a hash of our
// own, not a checksum, and collectors of keys (process plugins, saved states) rely on it as it is.
//
// Cost: four independent loads from 8 KiB of tables that stay in the first-level cache, and a
// dependent chain of about ten cycles, for each 32-bit word.
#pragma once

#include <cstdint>

#include "kestrelexp/packet.h"

namespace kestrel {

inline constexpr uint64_t flow_key_start = 0xFFFF'FFFF'FFFF'FFFF;

// One 32-bit word. Packet bytes enter as little-endian words, that is as they lie in memory.
[[gnu::always_inline]] inline uint64_t key_step32(uint64_t h, uint32_t word) {
    const uint32_t x = word ^ static_cast<uint32_t>(h);
    return (h << 32) ^ crc64_table[3][x & 0xFF] ^ crc64_table[2][(x >> 8) & 0xFF] ^
           crc64_table[1][(x >> 16) & 0xFF] ^ crc64_table[0][x >> 24];
}

// One 16-bit value, low byte first.
inline uint64_t key_step16(uint64_t h, uint16_t value) {
    h = (h << 8) ^ crc64_table[0][(value & 0xFF) ^ (h >> 56)];
    return (h << 8) ^ crc64_table[0][(value >> 8) ^ (h >> 56)];
}

// The last step turns the state into a key: the top bit marks it as valid.
inline flow_key key_finish(uint64_t h) {
    return static_cast<flow_key>(~h | 0x8000'0000'0000'0000);
}

}  // namespace kestrel
