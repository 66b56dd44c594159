// The program that the kernel runs over every frame before it copies any of it: the sampling, the
// frames that loopback shows twice, the capture expression, the length to keep.
#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <string>
#include <vector>

namespace af_packet {

// How frames of an interface begin.
enum class frame_kind : uint8_t {
    ethernet,
    bare,  // with the packet itself: tunnels, PPP
    unknown,
};

// By its type of hardware, ARPHRD_...
frame_kind kind_of(uint16_t hardware);
// What an unknown one delivers, in libpcap's words.
const char* name_of(uint16_t hardware);
bool is_loopback(uint16_t hardware);

using filter_program = std::vector<sock_filter>;

// Translates a capture expression as a live capture on the device has it. Returns whether that
// could be done; if not, reason has libpcap's words.
bool compile_expression(const std::string& expression, frame_kind kind, const char* device,
                        uint32_t snap_bytes, filter_program& program, std::string& reason);

// The same for no expression: takes every frame.
filter_program take_all(uint32_t snap_bytes);

// Puts the rest in front of it. sampling: takes one in so many, at random; 0: all. is_loopback:
// frames sent are passed over, as each comes back as one received.
filter_program put_in_front(const filter_program& program, uint32_t sampling, bool is_loopback);

}  // namespace af_packet
