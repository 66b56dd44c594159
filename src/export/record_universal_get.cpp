// The one routine behind every accessor: a value out of a record into a field of a given width and
// byte order. Runs for each field of each exported flow; touches only its arguments, any thread.
// Cost: one or two cache lines, one indexed jump on the length; no alignment is assumed.
#include <cstring>

#include "core/utils/wire.h"
#include "kestrelexp/getter.h"

namespace kestrel {
namespace {

template <typename T>
void copy_number(uint8_t* to, const uint8_t* from, bool swap) {
    const T value = load_native<T>(from);
    store_native(to, swap ? byte_swap(value) : value);
}

void copy_address(uint8_t* to, const uint8_t* from, bool swap) {
    const auto low = load_native<uint64_t>(from);
    const auto high = load_native<uint64_t>(from + 8);
    store_native(to, swap ? byte_swap(high) : low);
    store_native(to + 8, swap ? byte_swap(low) : high);
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

void record_universal_get(void* destination, const void* source, int32_t source_offset,
                          int32_t source_length, int32_t destination_length,
                          uint32_t network_order) {
    auto* to = static_cast<uint8_t*>(destination);
    const auto* from = static_cast<const uint8_t*>(source) + source_offset;
    const bool swap = network_order != 0;
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
