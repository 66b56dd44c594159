// A second parser, written to be read: one frame in, everything that may be known of it out. It
// shares no code and no table with the program. The tests hold the program's parser against it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace kestrel_model {

struct ipv4_view {
    uint32_t source;
    uint32_t destination;
    uint8_t tos;
};

struct ipv6_view {
    std::array<uint8_t, 16> source;  // as kept in records: the wire bytes in reverse
    std::array<uint8_t, 16> destination;
};

// What a parse says of a frame. A field without a value is one that the parser leaves alone.
struct parsed_frame {
    int64_t key = 0;             // 0: the frame is no flow
    uint32_t header_length = 0;  // bytes up to the first one after the last header understood

    std::array<uint8_t, 6> mac_source{};
    std::array<uint8_t, 6> mac_destination{};
    std::vector<uint16_t> vlan_ids;      // all of them; records keep the first four
    std::vector<uint32_t> mpls_entries;  // all of them; records keep the first ten
    bool label_stack_has_no_end = false;

    std::optional<uint8_t> l3protocol;
    std::optional<ipv4_view> ipv4;
    std::optional<ipv6_view> ipv6;
    std::optional<uint32_t> bytes;
    std::optional<uint8_t> l4protocol;
    std::optional<uint16_t> srcport;
    std::optional<uint16_t> dstport;
    std::optional<uint8_t> tcpflags;
    std::optional<uint16_t> icmptypecode;
};

// mask: which fields enter the key. input_interface: the record's inputsnmp.
parsed_frame parse_frame(const std::vector<uint8_t>& frame, uint32_t mask,
                         uint16_t input_interface);

// The CRC tables that the key is built with, made bit by bit.
uint64_t crc_table_entry(unsigned table, unsigned index);

}  // namespace kestrel_model
