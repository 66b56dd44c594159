// Tests of the parser: network and transport headers. Expected keys were worked out apart from the
// program, from the polynomial up.
#include "flow/parser.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/parser_fixture.h"

namespace {

using namespace kestrel_test;

using Parser = parser_fixture;

// ---- Frames that are no flow ----

TEST_F(Parser, ArpIsNoFlowAndLeavesTheAddresses) {
    EXPECT_EQ(0u, parse(frame_builder().macs().u16(0x0806).zeros(46).done()));
    EXPECT_EQ(0xEEEE'EEEEu, record().ipv4.srcipv4);
    EXPECT_EQ(0xEEEE'EEEEu, record().ipv4.dstipv4);
}

TEST_F(Parser, UnknownEtherTypeIsNoFlow) {
    EXPECT_EQ(0u, parse(frame_builder().macs().vlan(1, 0x88A8).u16(0x0800).zeros(46).done()));
}

TEST_F(Parser, UnknownIpVersionIsNoFlow) {
    EXPECT_EQ(0u, parse(frame_builder().macs().u16(0x0800).u8(0x55).zeros(45).done()));
}

TEST_F(Parser, EmptyFrameIsNoFlow) {
    EXPECT_EQ(0, record_process_packet(nullptr, 0, &record()));
}

TEST_F(Parser, LabelStackWithoutABottomIsNoFlow) {
    frame_builder frame;
    frame.macs().u16(0x8847);
    for (unsigned label = 0; label < 100; ++label)
        frame.mpls_entry(label, false);
    EXPECT_EQ(0u, parse(frame.done()));
}

TEST_F(Parser, TagsWithoutATypeBehindThemAreNoFlow) {
    frame_builder frame;
    frame.macs();
    for (unsigned vid = 0; vid < 100; ++vid)
        frame.vlan(vid);
    EXPECT_EQ(0u, parse(frame.done()));
}

TEST_F(Parser, NoFlowHasNoHeaderLength) {
    parse(udp_frame());
    parse(frame_builder().macs().u16(0x0806).zeros(46).done());
    EXPECT_EQ(0u, header_length());
}

// ---- IPv4 ----

TEST_F(Parser, ReadsAUdpFrame) {
    EXPECT_EQ(0xE0AF'EDCF'75B9'2A08u,
              parse(frame_builder().macs().u16(0x0800).ipv4(17, 28, 0, 0xB8).udp(53, 4444).done()));
    EXPECT_EQ(4u, record().l3protocol);
    EXPECT_EQ(17u, record().l4protocol);
    EXPECT_EQ(0xC000'0201u, record().ipv4.srcipv4);
    EXPECT_EQ(0xC633'6402u, record().ipv4.dstipv4);
    EXPECT_EQ(0xB8u, record().ipv4.tos);
    EXPECT_EQ(53u, record().srcport);
    EXPECT_EQ(4444u, record().dstport);
    EXPECT_EQ(28u, record().bytes);
    EXPECT_EQ(1u, record().packets);
    EXPECT_EQ(42u, header_length());
}

TEST_F(Parser, ReadsTcpFlagsAndHeaderLength) {
    EXPECT_EQ(0x9A37'32E3'0243'F07Bu,
              parse(frame_builder().macs().u16(0x0800).ipv4(6, 40).tcp(80, 50000, 0x12).done()));
    EXPECT_EQ(0x12u, record().tcpflags);
    EXPECT_EQ(54u, header_length());
}

TEST_F(Parser, ReadsSctpPorts) {
    EXPECT_EQ(
        0xC171'006E'0CBA'30DFu,
        parse(
            frame_builder().macs().u16(0x0800).ipv4(132, 32).u16(1000).u16(2000).zeros(8).done()));
    EXPECT_EQ(46u, header_length());
}

TEST_F(Parser, KeepsTypeAndCodeOfIcmp) {
    EXPECT_EQ(0xE791'0545'5B71'E0BFu,
              parse(frame_builder().macs().u16(0x0800).ipv4(1, 28).u16(0x0800).u16(0xABCD).done()));
    EXPECT_EQ(0x0800u, record().icmptypecode);
    EXPECT_EQ(0x0800u, record().srcport);
    EXPECT_EQ(0xABCDu, record().dstport);
    EXPECT_EQ(38u, header_length());
}

TEST_F(Parser, KeepsTheFirstWordsOfOtherProtocolsAsPorts) {
    EXPECT_EQ(
        0xAECA'9F25'9658'D84Bu,
        parse(frame_builder().macs().u16(0x0800).ipv4(47, 28).u16(0x2000).u16(0x6558).done()));
    EXPECT_EQ(0x2000u, record().srcport);
    EXPECT_EQ(0x6558u, record().dstport);
    EXPECT_EQ(34u, header_length());
}

TEST_F(Parser, DoesNotClearTypeAndCodeForOtherProtocols) {
    parse(udp_frame());
    EXPECT_EQ(0xEEEEu, record().icmptypecode);
}

TEST_F(Parser, SkipsIpOptions) {
    frame_bytes frame = frame_builder().macs().u16(0x0800).ipv4(17, 36).zeros(8).udp(5, 6).done();
    frame[14] = 0x47;
    parse(frame);
    EXPECT_EQ(5u, record().srcport);
    EXPECT_EQ(6u, record().dstport);
    EXPECT_EQ(50u, header_length());
}

TEST_F(Parser, DoNotFragmentAloneIsNoFragment) {
    parse(frame_builder().macs().u16(0x0800).ipv4(17, 28, 0x4000).udp(53, 4444).done());
    EXPECT_EQ(53u, record().srcport);
    EXPECT_EQ(4444u, record().dstport);
}

TEST_F(Parser, FirstFragmentHasNoPortsAndNoFlags) {
    EXPECT_EQ(0xD989'EF4A'DD9A'17ACu,
              parse(frame_builder().macs().u16(0x0800).ipv4(17, 28, 0x2000).udp(53, 4444).done()));
    EXPECT_EQ(0u, record().srcport);
    EXPECT_EQ(0u, record().dstport);
    EXPECT_EQ(0u, record().tcpflags);
    EXPECT_EQ(34u, header_length());
}

TEST_F(Parser, LaterFragmentHasNoPortsAndNoFlags) {
    EXPECT_EQ(0xD989'EF4A'DD9A'17ACu,
              parse(frame_builder().macs().u16(0x0800).ipv4(17, 28, 0x0001).udp(53, 4444).done()));
    EXPECT_EQ(0u, record().srcport);
    EXPECT_EQ(0u, record().dstport);
}

// ---- IPv6 ----

TEST_F(Parser, StoresIpv6AddressesReversed) {
    parse(frame_builder().macs().u16(0x86DD).ipv6(6, 20).tcp(443, 50000, 2).done());
    constexpr uint8_t source[16] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB8, 0x0D, 0x01, 0x20};
    EXPECT_EQ(0, std::memcmp(source, record().ipv6.srcipv6, 16));
    EXPECT_EQ(2u, record().ipv6.dstipv6[0]);
    EXPECT_EQ(0x20u, record().ipv6.dstipv6[15]);
}

TEST_F(Parser, ReadsATcpFrameOverIpv6) {
    EXPECT_EQ(0x9F5E'D8B9'FBFC'DA9Bu,
              parse(frame_builder().macs().u16(0x86DD).ipv6(6, 20).tcp(443, 50000, 2).done()));
    EXPECT_EQ(6u, record().l3protocol);
    EXPECT_EQ(6u, record().l4protocol);
    EXPECT_EQ(443u, record().srcport);
    EXPECT_EQ(60u, record().bytes);
    EXPECT_EQ(74u, header_length());
}

TEST_F(Parser, KeepsTypeAndCodeOfIcmpv6) {
    EXPECT_EQ(0xADA4'7225'23E2'D664u,
              parse(frame_builder().macs().u16(0x86DD).ipv6(58, 8).u16(0x8000).zeros(6).done()));
    EXPECT_EQ(0x8000u, record().icmptypecode);
}

// The sum needs more than the 16 bits of the length field.
TEST_F(Parser, CountsTheHeaderInTheBytesOfIpv6) {
    parse(frame_builder().macs().u16(0x86DD).ipv6(17, 65535).udp(1, 2).done());
    EXPECT_EQ(65575u, record().bytes);
}

TEST_F(Parser, ExtensionHeaderOfLengthByteZeroEndsTheWalk) {
    EXPECT_EQ(0xE2D9'EF30'6621'65BDu, parse(frame_builder()
                                                .macs()
                                                .u16(0x86DD)
                                                .ipv6(0, 16)
                                                .bytes({17, 0, 1, 4, 0, 0, 0, 0})
                                                .udp(53, 4444)
                                                .done()));
    EXPECT_EQ(17u, record().l4protocol);
    EXPECT_EQ(0x1100u, record().srcport);
    EXPECT_EQ(0x0104u, record().dstport);
    EXPECT_EQ(54u, header_length());
}

// A header of length byte 1 is 16 bytes long, but the walk goes on after 8.
TEST_F(Parser, ExtensionHeaderIsLeftByEightTimesItsLengthByte) {
    parse(frame_builder()
              .macs()
              .u16(0x86DD)
              .ipv6(60, 24)
              .bytes({17, 1, 0, 0, 0, 0, 0, 0})
              .udp(53, 4444)
              .done());
    EXPECT_EQ(17u, record().l4protocol);
    EXPECT_EQ(53u, record().srcport);
    EXPECT_EQ(70u, header_length());
}

TEST_F(Parser, WalksAChainOfExtensionHeaders) {
    parse(frame_builder()
              .macs()
              .u16(0x86DD)
              .ipv6(0, 44)
              .bytes({43, 1, 0, 0, 0, 0, 0, 0})
              .bytes({44, 1, 0, 0, 0, 0, 0, 0})
              .bytes({51, 1, 0, 0, 0, 0, 0, 0})
              .bytes({60, 1, 0, 0, 0, 0, 0, 0})
              .bytes({6, 1, 0, 0, 0, 0, 0, 0})
              .tcp(7, 8, 0x10)
              .done());
    EXPECT_EQ(6u, record().l4protocol);
    EXPECT_EQ(7u, record().srcport);
    EXPECT_EQ(0x10u, record().tcpflags);
}

TEST_F(Parser, ExtensionHeaderThatLeavesTheFrameEndsTheWalk) {
    EXPECT_NE(0u, parse(frame_builder()
                            .macs()
                            .u16(0x86DD)
                            .ipv6(43, 16)
                            .bytes({6, 255, 0xAA, 0xBB, 0, 0, 0, 0})
                            .done()));
    EXPECT_EQ(6u, record().l4protocol);
    EXPECT_EQ(0x06FFu, record().srcport);
    EXPECT_EQ(0xAABBu, record().dstport);
}

TEST_F(Parser, ExtensionProtocolsMeanNothingOverIpv4) {
    parse(frame_builder().macs().u16(0x0800).ipv4(43, 28).bytes({6, 1, 2, 3}).zeros(20).done());
    EXPECT_EQ(43u, record().l4protocol);
    EXPECT_EQ(34u, header_length());
}

TEST_F(Parser, IpVersionDecidesWhateverTheEtherTypeSays) {
    EXPECT_EQ(0x9F5E'D8B9'FBFC'DA9Bu,
              parse(frame_builder().macs().u16(0x0800).ipv6(6, 20).tcp(443, 50000, 2).done()));
}

}  // namespace
