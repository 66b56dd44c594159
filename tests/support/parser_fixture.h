// Fixture for tests of the parser: a record with room for all blocks, and what it holds after a
// frame. Every byte of it is 0xEE before the parse.
#pragma once

#include <gtest/gtest.h>

#include <cstring>

#include "flow/parser.h"
#include "tests/support/frame_builder.h"

namespace kestrel_test {

// The layout "-e vlan -e mpls -e mac".
inline constexpr uint64_t vlan_offset = 88;
inline constexpr uint64_t mpls_offset = 98;
inline constexpr uint64_t mac_offset = 142;

// 42 bytes: UDP over IPv4, ports 53 and 4444.
inline frame_bytes udp_frame() {
    return frame_builder().macs().u16(0x0800).ipv4(17, 28).udp(53, 4444).done();
}

class parser_fixture : public testing::Test {
  protected:
    parser_fixture() { std::memset(room_, 0xEE, sizeof room_); }
    void TearDown() override {
        kestrel::parser_set_flow_mask(FLOW_MASK_DEFAULT);
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
    }

    static void with_all_blocks() {
        kestrel_vlan_offset = vlan_offset;
        kestrel_mpls_offset = mpls_offset;
        kestrel_mac_offset = mac_offset;
    }

    // The key as an unsigned number, for comparison with literals.
    uint64_t parse(const frame_bytes& frame) {
        frame_ = frame;
        return static_cast<uint64_t>(
            record_process_packet(frame_.data(), static_cast<uint32_t>(frame_.size()), &record()));
    }
    uint64_t parse_masked(uint32_t mask, const frame_bytes& frame) {
        kestrel::parser_set_flow_mask(mask);
        return parse(frame);
    }

    uint32_t header_length() const {
        uint32_t captured;
        uint32_t header;
        get_packet_data(&captured, &header);
        return header;
    }

    flow_record& record() { return *reinterpret_cast<flow_record*>(room_); }
    const vlan_block& vlan() const {
        return *reinterpret_cast<const vlan_block*>(room_ + vlan_offset);
    }
    const mpls_block& mpls() const {
        return *reinterpret_cast<const mpls_block*>(room_ + mpls_offset);
    }

    frame_bytes frame_;
    alignas(8) uint8_t room_[192];
};

}  // namespace kestrel_test
