// Tests of the parser: tags, labels, MAC addresses, and the flow mask. Expected keys were worked
// out apart from the program, from the polynomial up.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/parser_fixture.h"

namespace {

using namespace kestrel_test;

using ParserLink = parser_fixture;

// ---- Tags and labels ----

TEST_F(ParserLink, KeepsFourOfFiveTagsAndHashesAll) {
    with_all_blocks();
    frame_builder frame;
    frame.macs().vlan(1).vlan(2, 0x9100).vlan(3, 0x9200).vlan(4).vlan(5);
    EXPECT_EQ(0xA2E9'4CE5'73B4'CB93u,
              parse_masked(FLOW_MASK_VLAN_ID, frame.u16(0x0800).ipv4(17, 28).udp(53, 4444).done()));
    EXPECT_EQ(4u, vlan().count);
    EXPECT_EQ(1u, vlan().id[0]);
    EXPECT_EQ(2u, vlan().id[1]);
    EXPECT_EQ(3u, vlan().id[2]);
    EXPECT_EQ(4u, vlan().id[3]);
}

TEST_F(ParserLink, TagIsHashedWithoutABlockForIt) {
    EXPECT_EQ(0xE59F'CDAD'C363'BCB8u, parse_masked(FLOW_MASK_VLAN_ID, frame_builder()
                                                                          .macs()
                                                                          .vlan(0xE000 | 100)
                                                                          .u16(0x0800)
                                                                          .ipv4(17, 28)
                                                                          .udp(53, 4444)
                                                                          .done()));
}

TEST_F(ParserLink, KeepsTenOfTwelveLabelsAndHashesAll) {
    with_all_blocks();
    frame_builder frame;
    frame.macs().u16(0x8847);
    for (unsigned label = 1; label <= 12; ++label)
        frame.mpls_entry(label, label == 12);
    EXPECT_EQ(0xF5EE'DB07'1FB6'F9E8u,
              parse_masked(FLOW_MASK_MPLS_ID, frame.ipv4(17, 28).udp(53, 4444).done()));
    EXPECT_EQ(10u, mpls().count);
    EXPECT_EQ(0x0000'0010u, mpls().entry[0]);
    EXPECT_EQ(0x0000'00A0u, mpls().entry[9]);
}

TEST_F(ParserLink, KeepsLabelTrafficClassAndBottomBit) {
    with_all_blocks();
    parse(frame_builder().macs().u16(0x8847).u32(0xABCD'EBFF).ipv4(17, 28).udp(1, 2).done());
    EXPECT_EQ(1u, mpls().count);
    EXPECT_EQ(0x00AB'CDEBu, mpls().entry[0]);
}

TEST_F(ParserLink, ByteBelowTheLabelsThatIsNoIpStartsAPseudowire) {
    EXPECT_EQ(0xE0AF'EDCF'75B9'2A08u, parse(frame_builder()
                                                .macs()
                                                .u16(0x8847)
                                                .mpls_entry(16, true)
                                                .zeros(12)
                                                .u16(0x0800)
                                                .ipv4(17, 28)
                                                .udp(53, 4444)
                                                .done()));
    EXPECT_EQ(60u, header_length());
}

// 0x44 would be an IPv4 header of 16 bytes.
TEST_F(ParserLink, ShortIpv4HeaderBelowTheLabelsIsAPseudowire) {
    EXPECT_EQ(0xE0AF'EDCF'75B9'2A08u, parse(frame_builder()
                                                .macs()
                                                .u16(0x8847)
                                                .mpls_entry(16, true)
                                                .u8(0x44)
                                                .zeros(11)
                                                .u16(0x0800)
                                                .ipv4(17, 28)
                                                .udp(53, 4444)
                                                .done()));
}

TEST_F(ParserLink, KeepsMacAddressesInWireOrder) {
    with_all_blocks();
    frame_bytes frame = udp_frame();
    for (uint8_t i = 0; i < 12; ++i)
        frame[i] = static_cast<uint8_t>(0x10 + i);
    parse(frame);
    constexpr uint8_t expected[12] = {0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B,
                                      0x10, 0x11, 0x12, 0x13, 0x14, 0x15};
    EXPECT_EQ(0, std::memcmp(expected, room_ + mac_offset, sizeof expected));
}

// ---- The flow mask ----

TEST_F(ParserLink, EmptyMaskGivesEveryFlowOneKey) {
    EXPECT_EQ(0x8B5A'79CA'E1E4'60B4u, parse_masked(0, udp_frame()));
    EXPECT_EQ(0x8B5A'79CA'E1E4'60B4u,
              parse(frame_builder().macs().u16(0x86DD).ipv6(6, 20).tcp(443, 50000, 2).done()));
}

TEST_F(ParserLink, EachMaskBitHashesItsFields) {
    EXPECT_EQ(0xF478'EAF7'37DB'0219u, parse_masked(FLOW_MASK_IP, udp_frame()));
    EXPECT_EQ(0xF428'1EAD'A58D'1F88u, parse_masked(FLOW_MASK_PORTS, udp_frame()));
    EXPECT_EQ(0xC3FD'5730'3435'DB37u, parse_masked(FLOW_MASK_MAC, udp_frame()));
    EXPECT_EQ(0xF775'FCE0'A44D'D798u, parse_masked(FLOW_MASK_L3_ID, udp_frame()));
    EXPECT_EQ(0xDA84'F95D'4E0C'C22Du, parse_masked(FLOW_MASK_L4_ID, udp_frame()));
}

TEST_F(ParserLink, IcmpBitHashesTypeAndCode) {
    EXPECT_EQ(0xEBC9'8A3B'C603'37A5u,
              parse_masked(FLOW_MASK_ICMP,
                           frame_builder().macs().u16(0x0800).ipv4(1, 28).u16(0x0800).done()));
}

TEST_F(ParserLink, MaskLeavesTheFieldsOfTheRecordAlone) {
    parse_masked(0, udp_frame());
    EXPECT_EQ(0xC000'0201u, record().ipv4.srcipv4);
    EXPECT_EQ(53u, record().srcport);
}

}  // namespace
