// The one rule by which a value goes from a record into a field of a given width and byte order:
// record_universal_get of getter.h, inline, so that accessors whose source is known at compile time
// keep only the part that serves it. No alignment is assumed.
#pragma once

#include <cstdint>
#include <cstring>

#include "base/wire.h"

namespace kestrel {

template <typename T>
void copy_number(uint8_t* to, const uint8_t* from, bool swap) {
    const T value = load_native<T>(from);
    store_native(to, swap ? byte_swap(value) : value);
}

inline void copy_address(uint8_t* to, const uint8_t* from, bool swap) {
    const auto low = load_native<uint64_t>(from);
    const auto high = load_native<uint64_t>(from + 8);
    store_native(to, swap ? byte_swap(high) : low);
    store_native(to + 8, swap ? byte_swap(low) : high);
}

template <typename T>
bool store_number(uint8_t* to, uint64_t value, bool swap) {
    const T cut = static_cast<T>(value);
    store_native(to, swap ? byte_swap(cut) : cut);
    return true;
}

// The usual case: a number into a field as wide as a number. Widening with zeros and cutting to the
// low-order bytes are then both one store. Returns whether it was the usual case.
__attribute__((always_inline)) inline bool copy_small_number(uint8_t* to, const uint8_t* from,
                                                             int32_t source_length,
                                                             int32_t destination_length,
                                                             bool swap) {
    uint64_t value;
    switch (source_length) {
        case 1:
            value = *from;
            break;
        case 2:
            value = load_native<uint16_t>(from);
            break;
        case 4:
            value = load_native<uint32_t>(from);
            break;
        case 8:
            value = load_native<uint64_t>(from);
            break;
        default:
            return false;
    }
    switch (destination_length) {
        case 1:
            *to = static_cast<uint8_t>(value);
            return true;
        case 2:
            return store_number<uint16_t>(to, value, swap);
        case 4:
            return store_number<uint32_t>(to, value, swap);
        case 8:
            return store_number<uint64_t>(to, value, swap);
        default:
            return false;
    }
}

// Lengths in bytes. See record_universal_get for what is written.
__attribute__((always_inline)) inline void copy_value(uint8_t* to, const uint8_t* from,
                                                      int32_t source_length,
                                                      int32_t destination_length, bool swap) {
    if (copy_small_number(to, from, source_length, destination_length, swap))
        return;
    int32_t length = destination_length;
    if (destination_length > source_length) {
        const auto padding = static_cast<size_t>(destination_length - source_length);
        std::memset(swap ? to : to + source_length, 0, padding);
        to += swap ? padding : 0;
        length = source_length;
    }
    switch (length) {
        case 0:
            break;
        case 1:
            *to = *from;
            break;
        case 2:
            copy_number<uint16_t>(to, from, swap);
            break;
        case 4:
            copy_number<uint32_t>(to, from, swap);
            break;
        case 8:
            copy_number<uint64_t>(to, from, swap);
            break;
        case 16:
            copy_address(to, from, swap);
            break;
        default:
            // No number: MAC addresses and labels leave the record as they are stored, and whole.
            std::memcpy(to, from, static_cast<size_t>(source_length));
    }
}

}  // namespace kestrel
