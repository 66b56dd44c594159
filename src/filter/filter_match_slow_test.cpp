#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/filter_fixture.h"

namespace {

using namespace kestrel_test;

// A flow with the VLAN block after its record.
class tagged_flow {
  public:
    explicit tagged_flow(const std::vector<uint16_t>& ids, uint16_t count)
        : usual_offset_(kestrel_vlan_offset) {
        kestrel_vlan_offset = FLOW_RECORD_BASE_SIZE;
        const flow_record base = flow("10.0.0.1", "10.0.0.2");
        vlan_block block = {{0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}, count};
        for (size_t i = 0; i < ids.size(); ++i)
            block.id[i] = ids[i];
        std::memcpy(bytes_, &base, sizeof base);
        std::memcpy(bytes_ + sizeof base, &block, sizeof block);
    }
    ~tagged_flow() { kestrel_vlan_offset = usual_offset_; }

    bool kept_by(const kestrel::filter_owner& rules) {
        return filter_test(rules.get(), reinterpret_cast<flow_record*>(bytes_)) == 0;
    }

  private:
    uint64_t usual_offset_;
    alignas(8) uint8_t bytes_[FLOW_RECORD_BASE_SIZE + sizeof(vlan_block)];
};

bool keeps_tagged(const char* rules, const std::vector<uint16_t>& ids) {
    return tagged_flow(ids, static_cast<uint16_t>(ids.size())).kept_by(compile(rules));
}

flow_record with_ports(uint8_t protocol, uint16_t source, uint16_t destination) {
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    record.l4protocol = protocol;
    record.srcport = source;
    record.dstport = destination;
    return record;
}

flow_record with_bytes(uint32_t bytes) {
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    record.bytes = bytes;
    return record;
}

flow_record with_packets(uint32_t packets) {
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    record.packets = packets;
    return record;
}

// ---- Slow rules: order, any, not ----

TEST(SlowMatch, AnyKeepsAndNotAnyDrops) {
    EXPECT_TRUE(keeps(compile("any\n"), "10.0.0.1", "10.0.0.2"));
    EXPECT_TRUE(keeps(compile("any\n"), "::1", "::2"));
    EXPECT_FALSE(keeps(compile("not any\n"), "10.0.0.1", "10.0.0.2"));
    EXPECT_FALSE(keeps(compile("not any\nany\n"), "::1", "::2"));
}

TEST(SlowMatch, NotAloneDropsEveryFlow) {
    EXPECT_FALSE(keeps(compile("not\nany\n"), "10.0.0.1", "10.0.0.2"));
}

TEST(SlowMatch, TheFirstRuleThatMatchesDecides) {
    const auto rules = compile("not src addr 10.0.0.1\nsrc addr 10.0.0.0/24\n");
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "10.0.0.2", "192.0.2.1"));
}

TEST(SlowMatch, WhatNoRuleMatchesIsDropped) {
    EXPECT_FALSE(keeps(compile("port 53\nproto tcp\n"), "10.0.0.1", "10.0.0.2"));
}

TEST(SlowMatch, AllConditionsOfARuleMustHold) {
    const auto rules = compile("src addr 10.0.0.1 dst port 80 proto udp\n");
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    EXPECT_TRUE(keeps(rules, record));
    record.dstport = 81;
    EXPECT_FALSE(keeps(rules, record));
    record.dstport = 80;
    record.l4protocol = 6;
    EXPECT_FALSE(keeps(rules, record));
}

TEST(SlowMatch, AnotherNegationThanOneGoesOn) {
    for (const auto& [second, kept] : {std::pair{"any\n", true}, std::pair{"not any\n", false}}) {
        const auto rules = compile(std::string("any\n") + second);
        rules->slow[0].negate = 2;
        EXPECT_EQ(kept, keeps(rules, "10.0.0.1", "10.0.0.2")) << second;
        rules->slow[1].negate = 2;
        EXPECT_FALSE(keeps(rules, "10.0.0.1", "10.0.0.2")) << second;
    }
}

// ---- Slow rules: addresses ----

TEST(SlowIpv4, EitherSideMayHoldTheAddress) {
    const auto rules = compile("addr 10.0.0.0/24\n");
    EXPECT_TRUE(keeps(rules, "10.0.0.255", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "192.0.2.1", "10.0.0.0"));
    EXPECT_FALSE(keeps(rules, "10.0.1.0", "9.255.255.255"));
}

TEST(SlowIpv4, ASideIsMeant) {
    const auto rules = compile("src addr 10.0.0.0/24 dst addr 192.0.2.1\n");
    EXPECT_TRUE(keeps(rules, "10.0.0.7", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "192.0.2.1", "10.0.0.7"));
    EXPECT_FALSE(keeps(rules, "10.0.0.7", "192.0.2.2"));
    EXPECT_FALSE(keeps(rules, "10.0.1.7", "192.0.2.1"));
}

TEST(SlowIpv4, AnAddressWithoutASideMakesTheRuleOneOfEitherSide) {
    const auto rules = compile("addr 10.0.0.1 dst addr 10.0.0.2\n");
    EXPECT_TRUE(keeps(rules, "10.0.0.1", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "192.0.2.1", "10.0.0.1"));
    EXPECT_FALSE(keeps(rules, "192.0.2.1", "10.0.0.2"));
    EXPECT_FALSE(keeps(rules, "10.0.0.2", "192.0.2.1"));
}

TEST(SlowIpv4, SwappedEndsMeanEverythingOutside) {
    const auto rules = compile("src addr 10.0.0.9-10.0.0.5\n");
    EXPECT_TRUE(keeps(rules, "10.0.0.9", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "10.0.0.5", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "0.0.0.0", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "10.0.0.6", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "10.0.0.8", "192.0.2.1"));
}

TEST(SlowIpv4, AnIpv6FlowIsNotMeant) {
    EXPECT_FALSE(keeps(compile("addr 10.0.0.0/24\n"), "::10.0.0.1", "::10.0.0.2"));
    EXPECT_TRUE(keeps(compile("not addr 10.0.0.0/24\nany\n"), "::10.0.0.1", "::10.0.0.2"));
}

TEST(SlowIpv4, FamiliesAreMeantByName) {
    EXPECT_TRUE(keeps(compile("ipproto ipv4\n"), "10.0.0.1", "10.0.0.2"));
    EXPECT_FALSE(keeps(compile("ipproto ipv4\n"), "::1", "::2"));
    EXPECT_FALSE(keeps(compile("ipproto ipv6\n"), "10.0.0.1", "10.0.0.2"));
    EXPECT_TRUE(keeps(compile("ipproto ipv6\n"), "::1", "::2"));
}

TEST(SlowIpv4, ARuleOfBothFamiliesNeverMatches) {
    const auto rules = compile("src addr 10.0.0.1 dst addr ::1\n");
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "0.0.0.1"));
    EXPECT_FALSE(keeps(rules, "::10.0.0.1", "::1"));
    EXPECT_FALSE(keeps(compile("ipproto ipv4 ipproto ipv6\n"), "10.0.0.1", "10.0.0.2"));
}

TEST(SlowIpv6, ASingleDestinationIsFound) {
    const auto rules = compile("dst addr 2001:db8::1\n");
    EXPECT_TRUE(keeps(rules, "2001:db8::9", "2001:db8::1"));
    EXPECT_TRUE(keeps(rules, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "2001:db8::1"));
    EXPECT_FALSE(keeps(rules, "2001:db8::9", "2001:db8::2"));
    EXPECT_FALSE(keeps(rules, "2001:db8::9", "2001:db9::1"));
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "10.0.0.2"));
}

TEST(SlowIpv6, OfADestinationPrefixTheLowHalfDecides) {
    const auto rules = compile("dst addr 2001:db8::/32\n");
    EXPECT_TRUE(keeps(rules, "::1", "2001:db8::1"));
    EXPECT_TRUE(keeps(rules, "::1", "3001::1"));  // the high half is not looked at
    EXPECT_TRUE(keeps(rules, "::1", "2001:db8:1::"));
    EXPECT_FALSE(keeps(rules, "::1", "3001::"));
}

TEST(SlowIpv6, ASourceIsHeldAgainstTheSpan) {
    // A single host has a span of 0: only the source :: is inside, whatever the host was.
    const auto rules = compile("src addr 2001:db8::1\n");
    EXPECT_TRUE(keeps(rules, "::", "2001:db8::1"));
    EXPECT_TRUE(keeps(rules, "::", "ffff::"));
    EXPECT_FALSE(keeps(rules, "2001:db8::1", "2001:db8::2"));
    EXPECT_FALSE(keeps(rules, "::1", "2001:db8::2"));
}

TEST(SlowIpv6, ASourcePrefixLetsNearlyEverythingIn) {
    const auto rules = compile("src addr 2001:db8::/32\n");
    EXPECT_TRUE(keeps(rules, "2001:db8::1", "::1"));
    EXPECT_TRUE(keeps(rules, "3001::1", "::1"));
    EXPECT_FALSE(keeps(rules, "3001::ffff:ffff:ffff:ffff", "::1"));
}

TEST(SlowIpv6, EitherSideNeverLooksAtTheDestination) {
    const auto rules = compile("addr 2001:db8::1\n");
    EXPECT_FALSE(keeps(rules, "2001:db8::1", "2001:db8::2"));
    EXPECT_FALSE(keeps(rules, "2001:db8::2", "2001:db8::1"));
    EXPECT_TRUE(keeps(rules, "::", "2001:db8::2"));
}

TEST(SlowIpv6, EitherSideHoldsTheSourceAgainstZeroAndTheSpan) {
    // Span: 0xF in the lowest word. Inside from 0 to 0xF, and from 0xF to 0x1E.
    const auto rules = compile("addr 2001:db8::10/124\n");
    EXPECT_TRUE(keeps(rules, "::f", "::1"));
    EXPECT_TRUE(keeps(rules, "5::e", "::1"));
    EXPECT_TRUE(keeps(rules, "::1e", "::1"));
    EXPECT_FALSE(keeps(rules, "::1f", "::1"));
    EXPECT_FALSE(keeps(rules, "5::", "::1"));
}

TEST(SlowIpv6, EitherSideHoldsTheSourceAgainstTheDestinationOfTheRule) {
    // The lower bound of the destination, ::2, with the span of the source, 0.
    const auto rules = compile("addr 2001:db8::1 dst addr 2001:db8::2\n");
    EXPECT_TRUE(keeps(rules, "2001:db8::2", "::1"));
    EXPECT_TRUE(keeps(rules, "::", "::1"));
    EXPECT_FALSE(keeps(rules, "2001:db8::1", "2001:db8::2"));
    EXPECT_FALSE(keeps(rules, "2001:db9::2", "::1"));
}

// ---- Slow rules: ports, protocols, VLANs ----

TEST(SlowPorts, EitherSideMayHoldThePort) {
    const auto rules = compile("port 53\n");
    EXPECT_TRUE(keeps(rules, with_ports(17, 53, 1000)));
    EXPECT_TRUE(keeps(rules, with_ports(17, 1000, 53)));
    EXPECT_FALSE(keeps(rules, with_ports(17, 52, 54)));
}

TEST(SlowPorts, OnlyTcpUdpAndSctpHavePorts) {
    const auto rules = compile("port 53\n");
    for (const uint8_t protocol : std::initializer_list<uint8_t>{6, 17, 132})
        EXPECT_TRUE(keeps(rules, with_ports(protocol, 53, 53))) << int{protocol};
    for (const uint8_t protocol : std::initializer_list<uint8_t>{0, 1, 2, 47, 58, 255})
        EXPECT_FALSE(keeps(rules, with_ports(protocol, 53, 53))) << int{protocol};
}

TEST(SlowPorts, ASideIsMeant) {
    const auto rules = compile("dst port 80-90\n");
    EXPECT_TRUE(keeps(rules, with_ports(6, 1, 80)));
    EXPECT_TRUE(keeps(rules, with_ports(6, 65535, 90)));
    EXPECT_FALSE(keeps(rules, with_ports(6, 80, 91)));
    EXPECT_FALSE(keeps(rules, with_ports(6, 80, 79)));
}

TEST(SlowPorts, BothSidesAreMeant) {
    const auto rules = compile("src port 1-10 dst port 20-30\n");
    EXPECT_TRUE(keeps(rules, with_ports(6, 10, 20)));
    EXPECT_FALSE(keeps(rules, with_ports(6, 20, 10)));
    EXPECT_FALSE(keeps(rules, with_ports(6, 11, 20)));
}

TEST(SlowPorts, APortWithoutASideMakesTheRuleOneOfEitherSide) {
    // The last range that is not for the destination alone is held against both ports.
    for (const char* text : {"port 80 dst port 53\n", "dst port 53 port 80\n",
                             "src port 53 port 80\n", "port 53 src port 80\n"}) {
        const auto rules = compile(text);
        EXPECT_TRUE(keeps(rules, with_ports(17, 80, 1000))) << text;
        EXPECT_TRUE(keeps(rules, with_ports(17, 1000, 80))) << text;
        EXPECT_FALSE(keeps(rules, with_ports(17, 53, 53))) << text;
    }
}

TEST(SlowProtocol, TheNumberMustBeTheSame) {
    EXPECT_TRUE(keeps(compile("proto udp\n"), with_ports(17, 1, 1)));
    EXPECT_FALSE(keeps(compile("proto udp\n"), with_ports(6, 1, 1)));
    EXPECT_TRUE(keeps(compile("proto 255\n"), with_ports(255, 1, 1)));
}

TEST(SlowProtocol, ANumberAboveAByteIsNeverThere) {
    EXPECT_FALSE(keeps(compile("proto 262\n"), with_ports(6, 1, 1)));
    EXPECT_TRUE(keeps(compile("proto 65542\n"), with_ports(6, 1, 1)));  // cut to 16 bits: 6
}

TEST(SlowVlan, AnyTagMayHoldTheId) {
    EXPECT_TRUE(keeps_tagged("vlan 10\n", {10}));
    EXPECT_TRUE(keeps_tagged("vlan 10-20\n", {1, 2, 3, 20}));
    EXPECT_FALSE(keeps_tagged("vlan 10-20\n", {9, 21}));
    EXPECT_FALSE(keeps_tagged("vlan 10\n", {}));
}

TEST(SlowVlan, TagsBehindTheCountDoNotMatter) {
    EXPECT_FALSE(tagged_flow({1, 10}, 1).kept_by(compile("vlan 10\n")));
    EXPECT_TRUE(tagged_flow({1, 10}, 2).kept_by(compile("vlan 10\n")));
}

TEST(SlowVlan, ACountBeyondTheBlockIsNotBelieved) {
    EXPECT_FALSE(tagged_flow({1, 2, 3, 4}, 5).kept_by(compile("vlan 5\n")));
    EXPECT_TRUE(tagged_flow({1, 2, 3, 4}, 65535).kept_by(compile("vlan 4\n")));
}

TEST(SlowVlan, WithoutTheBlockNoTagIsThere) {
    ASSERT_EQ(0u, kestrel_vlan_offset);
    EXPECT_FALSE(keeps(compile("vlan 10\n"), "10.0.0.1", "10.0.0.2"));
    EXPECT_FALSE(keeps(compile("vlan 0-MAX\n"), "10.0.0.1", "10.0.0.2"));
}

// ---- Slow rules: interface, bytes, packets ----

TEST(SlowImmediate, AnInterfaceInRangeDropsTheFlow) {
    const auto rules = compile("phy 3-4\nany\n");
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    const std::pair<uint16_t, bool> rows[] = {{2, true}, {3, false}, {4, false}, {5, true}};
    for (const auto& [interface, kept] : rows) {
        record.inputsnmp = interface;
        EXPECT_EQ(kept, keeps(rules, record)) << interface;
    }
}

TEST(SlowImmediate, ARuleWithAnInterfaceNeverMatches) {
    EXPECT_FALSE(keeps(compile("phy 3\n"), "10.0.0.1", "10.0.0.2"));
    EXPECT_TRUE(keeps(compile("not phy 3\nany\n"), "10.0.0.1", "10.0.0.2"));
}

TEST(SlowImmediate, NegationAndOtherConditionsDoNotMatter) {
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    record.inputsnmp = 3;
    EXPECT_FALSE(keeps(compile("not phy 3\nany\n"), record));
    EXPECT_FALSE(keeps(compile("phy 3 src addr 192.0.2.1 port 9 proto icmp\nany\n"), record));
}

TEST(SlowImmediate, TheFamilyOfTheRuleDoesMatter) {
    flow_record record = flow("::1", "::2");
    record.inputsnmp = 3;
    EXPECT_TRUE(keeps(compile("phy 3 ipproto ipv4\nany\n"), record));
    EXPECT_FALSE(keeps(compile("phy 3 ipproto ipv6\nany\n"), record));
}

TEST(SlowImmediate, ARuleThatDecidesBeforeItProtects) {
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    record.inputsnmp = 3;
    EXPECT_TRUE(keeps(compile("src addr 10.0.0.1\nphy 3\n"), record));
}

TEST(SlowImmediate, BytesAreComparedByTheLow16BitsOfTheirDistance) {
    const auto rules = compile("bytes 0-100\nany\n");
    EXPECT_FALSE(keeps(rules, with_bytes(0)));
    EXPECT_FALSE(keeps(rules, with_bytes(100)));
    EXPECT_TRUE(keeps(rules, with_bytes(101)));
    EXPECT_TRUE(keeps(rules, with_bytes(65535)));
    EXPECT_FALSE(keeps(rules, with_bytes(65536)));
    EXPECT_FALSE(keeps(rules, with_bytes(65636)));
    EXPECT_TRUE(keeps(rules, with_bytes(65637)));
}

TEST(SlowImmediate, ASpanOf16BitsDropsEveryFlow) {
    const auto rules = compile("bytes 100000-MAX\nany\n");
    EXPECT_FALSE(keeps(rules, with_bytes(1)));
    EXPECT_FALSE(keeps(rules, with_bytes(200000)));
    EXPECT_FALSE(keeps(compile("packets 1-65536\nany\n"), with_packets(0)));
    EXPECT_TRUE(keeps(compile("packets 1-65535\nany\n"), with_packets(0)));
}

TEST(SlowImmediate, PacketsAreComparedByTheLow16BitsOfTheirDistance) {
    const auto rules = compile("packets 3000000000-3000000001\nany\n");
    EXPECT_TRUE(keeps(rules, with_packets(2999999999u)));
    EXPECT_FALSE(keeps(rules, with_packets(3000000000u)));
    EXPECT_FALSE(keeps(rules, with_packets(3000000001u)));
    EXPECT_TRUE(keeps(rules, with_packets(3000000002u)));
    EXPECT_FALSE(keeps(rules, with_packets(3000000000u - 65536)));
}

// ---- The address test of slow IPv6 rules by itself ----

TEST(FilterSpan128, LowHalvesThatDifferDecideAlone) {
    const uint32_t base[4] = {10, 0, 5, 0};
    const uint32_t span[4] = {4, 0, 0, 0};
    const uint32_t inside[4] = {14, 0, 77, 77};
    const uint32_t outside[4] = {15, 0, 5, 0};
    const uint32_t below[4] = {9, 0, 5, 0};
    EXPECT_NE(0, filter_match_span128(inside, base, span));
    EXPECT_EQ(0, filter_match_span128(outside, base, span));
    EXPECT_EQ(0, filter_match_span128(below, base, span));
}

TEST(FilterSpan128, EqualLowHalvesLeaveItToTheHighOnes) {
    const uint32_t base[4] = {10, 0, 5, 1};
    const uint32_t span[4] = {0, 0, 2, 0};
    const uint32_t equal[4] = {10, 0, 5, 1};
    const uint32_t inside[4] = {10, 0, 7, 1};
    const uint32_t outside[4] = {10, 0, 8, 1};
    const uint32_t below[4] = {10, 0, 4, 1};
    EXPECT_NE(0, filter_match_span128(equal, base, span));
    EXPECT_NE(0, filter_match_span128(inside, base, span));
    EXPECT_EQ(0, filter_match_span128(outside, base, span));
    EXPECT_EQ(0, filter_match_span128(below, base, span));
}

TEST(FilterSpan128, WordsOfAHalfAreOneNumber) {
    const uint32_t base[4] = {0xFFFFFFFF, 0, 0, 0};
    const uint32_t span[4] = {1, 0, 0, 0};
    const uint32_t carried[4] = {0, 1, 0, 0};
    const uint32_t beyond[4] = {1, 1, 0, 0};
    EXPECT_NE(0, filter_match_span128(carried, base, span));
    EXPECT_EQ(0, filter_match_span128(beyond, base, span));
}

}  // namespace
