// Holds the program's parser against the model on one frame: every field of the record that is
// defined, the blocks, the key and the parse position. Used by the random comparison, by the
// captures and by the fuzz target. Single-threaded: it sets the offsets of the blocks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel_model {

// Which blocks a record has, as bits; blocks follow each other in the order VLAN, MPLS, MAC, or the
// other way round when reversed.
enum block_bit : unsigned { block_vlan = 1, block_mpls = 2, block_mac = 4, block_reversed = 8 };

struct check_settings {
    uint32_t mask = 0x77;
    unsigned blocks = 0;          // sum of block_bit
    uint8_t filling = 0xA5;       // what every byte of the record holds before the parse
    bool through_reader = false;  // packet_to_flow_reader instead of record_process_packet
};

// What differs, in words; empty when nothing does. The frame is parsed from a heap block of exactly
// its size, so that a sanitizer sees every read outside.
std::string compare_parsers(const std::vector<uint8_t>& frame, const check_settings& settings);

// "0A 1B ..." for messages.
std::string hex_of(const std::vector<uint8_t>& bytes);

}  // namespace kestrel_model
