// The wire format of protocol buffers, as far as a message of numbers and bytes needs it: a field
// is its number and its kind of value in one varint, and then the value. The caller provides the
// room.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kafka {

enum class wire_type : uint32_t { varint = 0, bytes = 2 };

inline constexpr size_t longest_varint = 10;

// Seven bits a byte, the lowest first; all bytes but the last have the eighth bit set.
inline uint8_t* put_varint(uint8_t* at, uint64_t value) {
    for (; value >= 0x80; value >>= 7)
        *at++ = static_cast<uint8_t>(value | 0x80);
    *at++ = static_cast<uint8_t>(value);
    return at;
}

inline uint8_t* put_tag(uint8_t* at, uint32_t number, wire_type type) {
    return put_varint(at, number << 3 | static_cast<uint32_t>(type));
}

// 0 is what a reader takes a number for that is not there, so it is left out.
inline uint8_t* put_number(uint8_t* at, uint32_t number, uint64_t value) {
    return value == 0 ? at : put_varint(put_tag(at, number, wire_type::varint), value);
}

inline uint8_t* put_bytes(uint8_t* at, uint32_t number, const void* bytes, size_t length) {
    at = put_varint(put_tag(at, number, wire_type::bytes), length);
    std::memcpy(at, bytes, length);
    return at + length;
}

}  // namespace kafka
