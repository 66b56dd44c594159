#include "record_walk.h"

#include <algorithm>
#include <iterator>

namespace capture_file {
namespace {

// As the bytes of a file: the magic number and the version after it.
struct start {
    uint8_t bytes[8];
    bool is_big_endian;
    bool is_in_ns;
};

constexpr start starts[] = {
    {{0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0}, false, false},
    {{0x4D, 0x3C, 0xB2, 0xA1, 2, 0, 4, 0}, false, true},
    {{0xA1, 0xB2, 0xC3, 0xD4, 0, 2, 0, 4}, true, false},
    {{0xA1, 0xB2, 0x3C, 0x4D, 0, 2, 0, 4}, true, true},
};

constexpr bool is_big_endian_machine = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

}  // namespace

bool walk_start(const uint8_t* data, size_t size, record_walk& walk) {
    if (size < walk_file_header)
        return false;
    const auto* const found = std::find_if(std::begin(starts), std::end(starts), [=](auto& it) {
        return std::memcmp(data, it.bytes, sizeof it.bytes) == 0;
    });
    if (found == std::end(starts))
        return false;
    walk = {.data = data,
            .size = size,
            .at = walk_file_header,
            .snap_length = walk_longest_frame,
            .is_swapped = found->is_big_endian != is_big_endian_machine,
            .is_in_ns = found->is_in_ns};
    return true;
}

void walk_cut_frames(record_walk& walk, int snap_length) {
    if (snap_length > 0 && static_cast<uint32_t>(snap_length) < walk_longest_frame)
        walk.snap_length = static_cast<uint32_t>(snap_length);
}

}  // namespace capture_file
