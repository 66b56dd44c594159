// Tests of the link types: headers as bytes, and the Ethernet frames that they become.
#include "kestrelexp/link.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

// As libpcap numbers them on Linux.
enum link_number {
    null_loopback = 0,
    en10mb = 1,
    ppp = 9,
    raw = 12,
    ppp_serial = 50,
    loop = 108,
    linux_sll = 113,
    ipv4 = 228,
    ipv6 = 229,
    linux_sll2 = 276,
};

constexpr link_number translated[] = {null_loopback, ppp,  raw,  ppp_serial, loop,
                                      linux_sll,     ipv4, ipv6, linux_sll2};

bytes operator+(const bytes& a, const bytes& b) {
    bytes sum = a;
    sum.insert(sum.end(), b.begin(), b.end());
    return sum;
}

const bytes packet4{0x45, 0x00, 0x00, 0x14, 0xAB, 0xCD};
const bytes packet6{0x60, 0x0F, 0x00, 0x00, 0x00, 0x08};
const bytes no_addresses(12, 0);
const bytes ip4{0x08, 0x00};
const bytes ip6{0x86, 0xDD};
const bytes nothing{0x00, 0x00};
const bytes labels{0x00, 0x01, 0x01, 0x40};

struct translation {
    bytes frame;
    uint32_t wire_length;
    bool is_rest_untouched;  // bytes of the buffer after the frame
};

// Every frame lies in an allocation of its own size, so that the address sanitizer sees a byte read
// past its end.
translation translate(int link_type, const bytes& frame, uint32_t room = 2048,
                      uint32_t more_on_wire = 0) {
    const link_format* format = link_format_find(link_type);
    EXPECT_NE(format, nullptr) << link_type;
    if (!format)
        return {};
    const auto exact = std::make_unique<uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), exact.get());
    const auto captured = static_cast<uint32_t>(frame.size());
    packet_header header{.timestamp = 1,
                         .wire_length = captured + more_on_wire,
                         .captured_length = captured,
                         .input_interface = 2,
                         .output_interface = 3};
    const auto buffer = std::make_unique<uint8_t[]>(room);
    std::memset(buffer.get(), 0xEE, room);
    const uint8_t* result = link_to_ethernet(format, exact.get(), &header, buffer.get(), room);
    EXPECT_EQ(result, buffer.get());
    EXPECT_EQ(header.timestamp, 1u);
    EXPECT_EQ(header.input_interface, 2);
    EXPECT_EQ(header.output_interface, 3);
    EXPECT_LE(header.captured_length, room);
    const bytes rest(result + header.captured_length, result + room);
    return {bytes(result, result + header.captured_length), header.wire_length,
            rest == bytes(rest.size(), 0xEE)};
}

bytes ethernet_of(int link_type, const bytes& frame) {
    return translate(link_type, frame).frame;
}

TEST(Link, EthernetNeedsNoTranslation) {
    EXPECT_EQ(link_format_find(en10mb), nullptr);
}

TEST(Link, OtherLinkTypesHaveNone) {
    for (int number : {-1, 2, 6, 8, 14, 51, 104, 105, 127, 147, 189, 227, 230, 275, 277, 0xFFF0})
        EXPECT_EQ(link_format_find(number), nullptr) << number;
}

TEST(Link, ACookedFrameKeepsTheSourceAddressAndTheProtocol) {
    const bytes sll{0x00, 0x00, 0x00, 0x01, 0x00, 0x06, 0x02, 0x11,
                    0x22, 0x33, 0x44, 0x55, 0x77, 0x88, 0x86, 0xDD};
    const bytes source{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(ethernet_of(linux_sll, sll + packet6), bytes(6, 0) + source + ip6 + packet6);
}

TEST(Link, ACookedFrameOfTheSecondFormHasItsProtocolInFront) {
    const bytes sll2{0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x01,
                     0x04, 0x06, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x77, 0x88};
    const bytes source{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(ethernet_of(linux_sll2, sll2 + packet4), bytes(6, 0) + source + ip4 + packet4);
}

TEST(Link, AnAddressOfAnotherLengthIsNoSourceAddress) {
    for (uint8_t length : bytes{0, 4, 5, 7, 8}) {
        const bytes sll{0x00, 0x00, 0xFF, 0xFE, 0x00, length, 0x02, 0x11,
                        0x22, 0x33, 0x44, 0x55, 0x77, 0x88,   0x08, 0x00};
        EXPECT_EQ(ethernet_of(linux_sll, sll + packet4), no_addresses + ip4 + packet4);
        const bytes sll2{0x08, 0x00,   0x00, 0x00, 0x00, 0x00, 0x00, 0x07, 0xFF, 0xFE,
                         0x00, length, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x77, 0x88};
        EXPECT_EQ(ethernet_of(linux_sll2, sll2 + packet4), no_addresses + ip4 + packet4);
    }
}

TEST(Link, TagsAndOtherProtocolsOfACookedFrameStayAsTheyAre) {
    const bytes head{0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0, 0, 0, 0, 0, 0, 0, 0};
    const bytes tagged{0x81, 0x00, 0x00, 0x2A, 0x08, 0x00};
    EXPECT_EQ(ethernet_of(linux_sll, head + tagged + packet4), no_addresses + tagged + packet4);
    const bytes labelled{0x88, 0x47, 0x00, 0x01, 0x01, 0x40};
    EXPECT_EQ(ethernet_of(linux_sll, head + labelled + packet4), no_addresses + labelled + packet4);
    const bytes arp{0x08, 0x06, 0x00, 0x01};
    EXPECT_EQ(ethernet_of(linux_sll, head + arp), no_addresses + arp);
}

TEST(Link, TheVersionOfABarePacketIsItsProtocol) {
    EXPECT_EQ(ethernet_of(raw, packet4), no_addresses + ip4 + packet4);
    EXPECT_EQ(ethernet_of(raw, packet6), no_addresses + ip6 + packet6);
    for (uint8_t first : bytes{0x00, 0x35, 0x50, 0x75, 0xF0})
        EXPECT_EQ(ethernet_of(raw, bytes{first}), no_addresses + nothing + bytes{first});
    EXPECT_EQ(ethernet_of(raw, {}), no_addresses + nothing);
}

TEST(Link, BarePacketsOfOneVersionNeedNoLook) {
    EXPECT_EQ(ethernet_of(ipv4, packet4), no_addresses + ip4 + packet4);
    EXPECT_EQ(ethernet_of(ipv6, packet6), no_addresses + ip6 + packet6);
    EXPECT_EQ(ethernet_of(ipv4, {}), no_addresses + ip4);
    EXPECT_EQ(ethernet_of(ipv6, {}), no_addresses + ip6);
}

TEST(Link, LoopbackNamesAnAddressFamilyInEitherByteOrder) {
    for (link_number type : {null_loopback, loop}) {
        EXPECT_EQ(ethernet_of(type, bytes{2, 0, 0, 0} + packet4), no_addresses + ip4 + packet4);
        EXPECT_EQ(ethernet_of(type, bytes{0, 0, 0, 2} + packet4), no_addresses + ip4 + packet4);
        for (uint8_t family : bytes{10, 24, 28, 30}) {
            EXPECT_EQ(ethernet_of(type, bytes{family, 0, 0, 0} + packet6),
                      no_addresses + ip6 + packet6);
            EXPECT_EQ(ethernet_of(type, bytes{0, 0, 0, family} + packet6),
                      no_addresses + ip6 + packet6);
        }
    }
}

TEST(Link, OtherFamiliesAreNoPackets) {
    for (const bytes& family : {bytes{0, 0, 0, 0}, bytes{7, 0, 0, 0}, bytes{0, 0, 0, 16},
                                bytes{2, 2, 0, 0}, bytes{0, 0, 2, 0}, bytes{0, 2, 0, 0}})
        EXPECT_EQ(ethernet_of(null_loopback, family + packet4), no_addresses + nothing + packet4);
}

TEST(Link, PppHasItsProtocolInOneByteOrTwo) {
    for (link_number type : {ppp, ppp_serial})
        for (const bytes& lead : {bytes{}, bytes{0xFF, 0x03}}) {
            EXPECT_EQ(ethernet_of(type, lead + bytes({0x00, 0x21}) + packet4),
                      no_addresses + ip4 + packet4);
            EXPECT_EQ(ethernet_of(type, lead + bytes{0x21} + packet4),
                      no_addresses + ip4 + packet4);
            EXPECT_EQ(ethernet_of(type, lead + bytes({0x00, 0x57}) + packet6),
                      no_addresses + ip6 + packet6);
            EXPECT_EQ(ethernet_of(type, lead + bytes{0x57} + packet6),
                      no_addresses + ip6 + packet6);
            EXPECT_EQ(ethernet_of(type, lead + bytes({0x02, 0x81}) + labels),
                      no_addresses + bytes({0x88, 0x47}) + labels);
        }
}

TEST(Link, OtherPppProtocolsAreNoPackets) {
    EXPECT_EQ(ethernet_of(ppp, {0xC0, 0x21, 0x01, 0x02}),
              no_addresses + nothing + bytes({0x01, 0x02}));
    EXPECT_EQ(ethernet_of(ppp, {0xFF, 0x03, 0xC0, 0x21, 0x01}),
              no_addresses + nothing + bytes({0x01}));
    EXPECT_EQ(ethernet_of(ppp, {0xFF, 0x45, 0x00}), no_addresses + nothing + bytes({0x45, 0x00}));
}

TEST(Link, AFrameThatEndsWithinItsHeaderIsEmpty) {
    const struct {
        link_number type;
        size_t shortest;
    } headers[] = {{null_loopback, 4}, {loop, 4}, {linux_sll, 16}, {linux_sll2, 20}};
    for (const auto& [type, shortest] : headers) {
        for (size_t size = 0; size < shortest; ++size)
            EXPECT_EQ(ethernet_of(type, bytes(size, 0xFF)), bytes{}) << type << " " << size;
        EXPECT_EQ(ethernet_of(type, bytes(shortest, 0x00)), no_addresses + nothing) << type;
    }
    for (const bytes& cut : {bytes{}, bytes{0x00}, bytes{0xFF, 0x03}, bytes{0xFF, 0x03, 0x00}})
        EXPECT_EQ(ethernet_of(ppp, cut), bytes{}) << cut.size();
}

TEST(Link, NoByteIsReadPastTheCapturedOnes) {
    // What each length reads shows under the address sanitizer; here, that it grows by no byte.
    const bytes patterns[] = {bytes(64, 0x00), bytes(64, 0x06), bytes(64, 0x21), bytes(64, 0xFF),
                              bytes{0xFF, 0x03} + bytes(62, 0x00)};
    for (link_number type : translated)
        for (const bytes& pattern : patterns)
            for (uint32_t size = 0; size <= 64; ++size) {
                const auto end = pattern.begin() + static_cast<ptrdiff_t>(size);
                const bytes made = ethernet_of(type, bytes(pattern.begin(), end));
                EXPECT_LE(made.size(), size + 14) << type;
            }
}

TEST(Link, TheWireLengthChangesAsTheHeaderDoes) {
    const bytes sll = bytes(14, 0) + ip4;
    const bytes sll2 = ip4 + bytes(18, 0);
    EXPECT_EQ(translate(linux_sll, sll + packet4, 2048, 1000).wire_length, 14 + 6 + 1000u);
    EXPECT_EQ(translate(linux_sll2, sll2 + packet4, 2048, 1000).wire_length, 14 + 6 + 1000u);
    EXPECT_EQ(translate(raw, packet4, 2048, 1000).wire_length, 14 + 6 + 1000u);
    EXPECT_EQ(translate(loop, bytes{0, 0, 0, 2} + packet4).wire_length, 14 + 6u);
    EXPECT_EQ(translate(ppp, bytes{0xFF, 0x03, 0x00, 0x21} + packet4).wire_length, 14 + 6u);
    EXPECT_EQ(translate(ppp, bytes{0x21} + packet4).wire_length, 14 + 6u);
    EXPECT_EQ(translate(linux_sll, bytes(10, 0)).wire_length, 14u);
}

TEST(Link, WhatDoesNotFitIsCutOff) {
    const translation exact = translate(raw, packet4, 20);
    EXPECT_EQ(exact.frame, no_addresses + ip4 + packet4);
    const translation cut = translate(raw, packet4, 19);
    EXPECT_EQ(cut.frame, no_addresses + ip4 + bytes(packet4.begin(), packet4.end() - 1));
    EXPECT_EQ(cut.wire_length, 20u);
    EXPECT_EQ(translate(raw, packet4, 14).frame, no_addresses + ip4);
}

TEST(Link, TheRestOfTheBufferIsLeftAlone) {
    for (link_number type : translated)
        for (size_t size : {0, 3, 24, 60})
            EXPECT_TRUE(translate(type, bytes(size, 0x21)).is_rest_untouched) << type;
}

// The frame after its provider's tags were rewritten. It lies in an allocation of its own size.
bytes rewritten(const bytes& frame) {
    const auto exact = std::make_unique<uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), exact.get());
    const auto captured = static_cast<uint32_t>(frame.size());
    const bool has_any = link_has_service_tags(exact.get(), captured) != 0;
    link_rewrite_service_tags(exact.get(), captured);
    const bytes result(exact.get(), exact.get() + frame.size());
    EXPECT_EQ(has_any, result != frame);
    EXPECT_EQ(link_has_service_tags(exact.get(), captured), 0);
    return result;
}

const bytes addresses(12, 0x88);  // which are no types
const bytes service{0x88, 0xA8};
const bytes tag{0x81, 0x00};
const bytes old_tag{0x91, 0x00};
const bytes old_tag_2{0x92, 0x00};
const bytes id_1{0x00, 0x01};
const bytes id_like_service{0x88, 0xA8};

TEST(ServiceTags, EachTakesTheTypeOfOtherTags) {
    EXPECT_EQ(rewritten(addresses + service + id_1 + ip4 + packet4),
              addresses + tag + id_1 + ip4 + packet4);
    EXPECT_EQ(rewritten(addresses + service + id_1 + service + id_1 + ip4),
              addresses + tag + id_1 + tag + id_1 + ip4);
    EXPECT_EQ(rewritten(addresses + service + id_like_service + tag + id_1 + ip4),
              addresses + tag + id_like_service + tag + id_1 + ip4);
}

TEST(ServiceTags, AreFoundAfterTagsOfEveryKind) {
    for (const bytes& other : {tag, old_tag, old_tag_2})
        EXPECT_EQ(rewritten(addresses + other + id_1 + service + id_1 + ip4),
                  addresses + other + id_1 + tag + id_1 + ip4);
}

TEST(ServiceTags, OtherFramesStayAsTheyAre) {
    for (const bytes& frame :
         {bytes{}, addresses, addresses + ip4 + packet4, addresses + ip4 + service,
          addresses + tag + id_like_service + ip4 + service + id_1,
          addresses + bytes{0x88, 0x47} + service + id_1})
        EXPECT_EQ(rewritten(frame), frame);
}

TEST(ServiceTags, OneThatIsCutOffIsLeftAlone) {
    const bytes whole = addresses + tag + id_1 + service + id_1;
    for (size_t size = 0; size <= 17; ++size) {
        const bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_EQ(rewritten(cut), cut);
    }
    EXPECT_EQ(rewritten(addresses + tag + id_1 + service), addresses + tag + id_1 + tag);
}

}  // namespace
