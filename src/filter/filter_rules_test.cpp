#include "filter/filter_rules.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "tests/support/filter_fixture.h"

namespace {

using namespace kestrel_test;

using words = std::array<uint32_t, 4>;
constexpr uint32_t all_ones = 0xFFFFFFFF;
constexpr words zeros = {0, 0, 0, 0};
constexpr words ones = {all_ones, all_ones, all_ones, all_ones};

words words_of(const uint32_t (&from)[4]) {
    return {from[0], from[1], from[2], from[3]};
}

void expect_entry(const fast4_entry& entry, uint32_t src_low, uint32_t src_span, uint32_t dst_low,
                  uint32_t dst_span, uint16_t negate) {
    EXPECT_EQ(src_low, entry.src_low);
    EXPECT_EQ(src_span, entry.src_span);
    EXPECT_EQ(dst_low, entry.dst_low);
    EXPECT_EQ(dst_span, entry.dst_span);
    EXPECT_EQ(negate, entry.negate);
}

void expect_entry(const fast6_entry& entry, const words& src_low, const words& src_span,
                  const words& dst_low, const words& dst_span, uint32_t negate) {
    EXPECT_EQ(src_low, words_of(entry.src_low));
    EXPECT_EQ(src_span, words_of(entry.src_span));
    EXPECT_EQ(dst_low, words_of(entry.dst_low));
    EXPECT_EQ(dst_span, words_of(entry.dst_span));
    EXPECT_EQ(negate, entry.negate);
}

void expect_counts(const kestrel::filter_owner& rules, uint64_t fast4, uint64_t fast6,
                   uint64_t slow) {
    EXPECT_EQ(fast4, rules->fast4_count);
    EXPECT_EQ(fast6, rules->fast6_count);
    EXPECT_EQ(slow, rules->slow_count);
}

// ---- Lines ----

TEST(FilterRules, AFileWithoutRulesIsAFilterWithoutRules) {
    expect_counts(compile(""), 0, 0, 0);
    expect_counts(compile("# only\n# comments\n\n"), 0, 0, 0);
}

TEST(FilterRules, ALineWithAHashAnywhereIsNoRule) {
    expect_counts(compile("any # keep everything\nnonsense#\nport 80\n"), 0, 0, 1);
}

TEST(FilterRules, LinesOfBlanksAreNoRules) {
    expect_counts(compile("   \n          \nany\n"), 0, 0, 1);
}

TEST(FilterRules, RunsOfBlanksPartWordsLikeOne) {
    const auto rules = compile("   not   port    80  \n");
    ASSERT_EQ(1u, rules->slow_count);
    EXPECT_EQ(0x0030u, rules->slow[0].mask);
    EXPECT_EQ(1u, rules->slow[0].negate);
}

TEST(FilterRules, TabsDoNotPartWords) {
    EXPECT_EQ("Incomplete rule: port\t80\n", load_rules("port\t80\n").messages);
}

TEST(FilterRules, LineEndsOfBothKindsAreTaken) {
    expect_counts(compile("fast src addr 10.0.0.1\r\nany\r\n"), 1, 0, 1);
}

TEST(FilterRules, TheFirstFaultEndsTheFile) {
    const auto result = load_rules("any\nnonsense 1\nnonsense 2\n");
    EXPECT_EQ(nullptr, result.rules);
    EXPECT_EQ("Invalid rule: nonsense 1\n", result.messages);
}

TEST(FilterRules, FaultsAreSilentBelowTheirLevel) {
    const auto result = load_rules("nonsense 1\n", -2);
    EXPECT_EQ(nullptr, result.rules);
    EXPECT_EQ("", result.messages);
}

// ---- Fast rules ----

TEST(FastRules, ASourceLeavesTheDestinationOpen) {
    const auto rules = compile("fast src addr 10.0.0.0/8\n");
    expect_counts(rules, 1, 0, 0);
    expect_entry(rules->fast4[0], 0x0A000000, 0x00FFFFFF, 0, all_ones, 0);
}

TEST(FastRules, ADestinationLeavesTheSourceOpen) {
    const auto rules = compile("fast not dst addr 10.0.0.5-10.0.0.9\n");
    expect_counts(rules, 1, 0, 0);
    expect_entry(rules->fast4[0], 0, all_ones, 0x0A000005, 4, 1);
}

TEST(FastRules, BothSidesStandInOneEntry) {
    const auto rules = compile("fast dst addr 10.0.0.2 src addr 10.0.0.1\n");
    expect_counts(rules, 1, 0, 0);
    expect_entry(rules->fast4[0], 0x0A000001, 0, 0x0A000002, 0, 0);
}

TEST(FastRules, AnIpv6SpanIsTakenWordByWord) {
    const auto rules = compile("fast src addr 2001:db8::5-2001:db9::2\n");
    expect_counts(rules, 0, 1, 0);
    expect_entry(rules->fast6[0], {5, 0, 0, 0x20010DB8}, {0xFFFFFFFD, 0, 0, 1}, zeros, ones, 0);
}

TEST(FastRules, ASpanWrapsWhenTheEndsAreSwapped) {
    const auto rules = compile("fast src addr 10.0.0.9-10.0.0.5\n");
    expect_entry(rules->fast4[0], 0x0A000009, 0xFFFFFFFC, 0, all_ones, 0);
}

TEST(FastRules, TheSideHoldsUntilAnotherIsNamed) {
    const auto rules = compile("fast src addr 10.0.0.1 addr 10.0.0.2\n");
    expect_counts(rules, 1, 0, 0);
    expect_entry(rules->fast4[0], 0x0A000002, 0, 0, all_ones, 0);
}

TEST(FastRules, WithoutASideAnIpv4RuleTakesEveryFlow) {
    const auto rules = compile("fast addr 10.0.0.0/8\n");
    expect_counts(rules, 2, 0, 0);
    expect_entry(rules->fast4[0], 0, all_ones, 0, all_ones, 0);  // sorted in front
    expect_entry(rules->fast4[1], 0x0A000000, 0x00FFFFFF, 0, all_ones, 0);
}

TEST(FastRules, WithoutASideAnIpv6RuleTakesEveryFlowTwice) {
    const auto rules = compile("fast not addr 2001:db8::1\n");
    expect_counts(rules, 0, 2, 0);
    expect_entry(rules->fast6[0], zeros, ones, zeros, ones, 1);
    expect_entry(rules->fast6[1], zeros, ones, zeros, ones, 1);
}

TEST(FastRules, TheSideOfTheLastGroupDecidesAboutTheMirror) {
    expect_counts(compile("fast addr 10.0.0.1 src addr 10.0.0.2\n"), 1, 0, 0);
    expect_counts(compile("fast src addr 10.0.0.1 addr 10.0.0.2\n"), 1, 0, 0);
    expect_counts(compile("fast addr 10.0.0.1 addr 10.0.0.2\n"), 2, 0, 0);
}

TEST(FastRules, TheLastAddressDecidesTheTable) {
    const auto rules = compile("fast src addr 10.0.0.1 dst addr ::1\n");
    expect_counts(rules, 0, 1, 0);
    expect_entry(rules->fast6[0], {0x0A000001, 0, 0, 0}, {0, all_ones, all_ones, all_ones},
                 {1, 0, 0, 0}, zeros, 0);
}

TEST(FastRules, AnIpv6SourceInAnIpv4EntryIsItsLowestWord) {
    const auto rules = compile("fast src addr 2001:db8::7 dst addr 10.0.0.1\n");
    expect_counts(rules, 1, 0, 0);
    expect_entry(rules->fast4[0], 7, 0, 0x0A000001, 0, 0);
}

TEST(FastRules, OnlyTheLastValueHasToBeGood) {
    const auto result = load_rules("fast src addr 10.0.0.0/33 dst addr 10.0.0.1\n");
    EXPECT_EQ("Invalid mask found\n", result.messages);
    ASSERT_NE(nullptr, result.rules);
    expect_entry(result.rules->fast4[0], 0, all_ones, 0x0A000001, 0, 0);
}

TEST(FastRules, EntriesAreSorted) {
    const auto rules = compile(
        "fast src addr 192.0.2.1\nfast src addr 10.0.0.1 dst addr 10.0.0.9\n"
        "fast src addr 10.0.0.1 dst addr 10.0.0.3\nfast dst addr 10.0.0.1\n");
    expect_counts(rules, 4, 0, 0);
    expect_entry(rules->fast4[0], 0, all_ones, 0x0A000001, 0, 0);
    expect_entry(rules->fast4[1], 0x0A000001, 0, 0x0A000003, 0, 0);
    expect_entry(rules->fast4[2], 0x0A000001, 0, 0x0A000009, 0, 0);
    expect_entry(rules->fast4[3], 0xC0000201, 0, 0, all_ones, 0);
}

TEST(FastRules, Ipv6EntriesAreSortedByTheirLowHalf) {
    const auto rules = compile("fast src addr 2001:db8::2\nfast src addr 3001::1\n");
    expect_counts(rules, 0, 2, 0);
    EXPECT_EQ((words{1, 0, 0, 0x30010000}), words_of(rules->fast6[0].src_low));
    EXPECT_EQ((words{2, 0, 0, 0x20010DB8}), words_of(rules->fast6[1].src_low));
}

// ---- Slow rules ----

TEST(SlowRules, StayInTheOrderOfTheFile) {
    const auto rules = compile("port 80\nfast src addr 10.0.0.1\n not any\nany\n");
    expect_counts(rules, 1, 0, 3);
    const char* texts[] = {"port 80", " not any", "any"};
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_STREQ(texts[i], rules->slow[i].text);
        EXPECT_EQ(i, rules->slow[i].index);
    }
}

TEST(SlowRules, AnyAndNotAny) {
    const auto rules = compile("any\nnot any\n");
    EXPECT_EQ(0x2000u, rules->slow[0].mask);
    EXPECT_EQ(0u, rules->slow[0].negate);
    EXPECT_EQ(0x2000u, rules->slow[1].mask);
    EXPECT_EQ(1u, rules->slow[1].negate);
}

TEST(SlowRules, NotAloneIsARuleWithoutConditions) {
    const auto rules = compile("not\n");
    expect_counts(rules, 0, 0, 1);
    EXPECT_EQ(0u, rules->slow[0].mask);
    EXPECT_EQ(1u, rules->slow[0].negate);
}

TEST(SlowRules, AnAddressOnEitherSideStandsInTheSource) {
    const slow_rule rule = compile("addr 10.0.0.0/8\n")->slow[0];
    EXPECT_EQ(0x000Du, rule.mask);
    EXPECT_EQ(4, rule.family);
    EXPECT_EQ((words{0x0A000000, 0, 0, 0}), words_of(rule.src_low));
    EXPECT_EQ((words{0x00FFFFFF, 0, 0, 0}), words_of(rule.src_span));
    EXPECT_EQ(zeros, words_of(rule.dst_low));
    EXPECT_EQ(zeros, words_of(rule.dst_span));
}

TEST(SlowRules, AnAddressOnOneSideOpensTheOther) {
    const slow_rule source = compile("src addr 10.0.0.1\n")->slow[0];
    EXPECT_EQ(0x0005u, source.mask);
    EXPECT_EQ((words{0x0A000001, 0, 0, 0}), words_of(source.src_low));
    EXPECT_EQ(zeros, words_of(source.src_span));
    EXPECT_EQ(zeros, words_of(source.dst_low));
    EXPECT_EQ(ones, words_of(source.dst_span));
    const slow_rule destination = compile("dst addr 2001:db8::/32\n")->slow[0];
    EXPECT_EQ(0x0006u, destination.mask);
    EXPECT_EQ(6, destination.family);
    EXPECT_EQ(zeros, words_of(destination.src_low));
    EXPECT_EQ(ones, words_of(destination.src_span));
    EXPECT_EQ((words{0, 0, 0, 0x20010DB8}), words_of(destination.dst_low));
    EXPECT_EQ((words{all_ones, all_ones, all_ones, 0}), words_of(destination.dst_span));
}

TEST(SlowRules, TheSideIsDecidedForEachGroup) {
    const slow_rule rule = compile("src addr 10.0.0.1 addr 10.0.0.2\n")->slow[0];
    EXPECT_EQ(0x000Du, rule.mask);
    EXPECT_EQ(0x0A000002u, rule.src_low[0]);
}

TEST(SlowRules, AddressesOfBothFamiliesSetBothBits) {
    const slow_rule rule = compile("src addr 10.0.0.1 dst addr ::1\n")->slow[0];
    EXPECT_EQ(0x0007u, rule.mask);
    EXPECT_EQ(6, rule.family);
}

TEST(SlowRules, APortOnEitherSideStandsInBoth) {
    const slow_rule rule = compile("port 1024-MAX\n")->slow[0];
    EXPECT_EQ(0x0030u, rule.mask);
    EXPECT_EQ(1024, rule.sport_low);
    EXPECT_EQ(64511, rule.sport_span);
    EXPECT_EQ(1024, rule.dport_low);
    EXPECT_EQ(64511, rule.dport_span);
}

TEST(SlowRules, APortOnOneSideOpensTheOther) {
    const slow_rule rule = compile("dst port ssh\n")->slow[0];
    EXPECT_EQ(0x0010u, rule.mask);
    EXPECT_EQ(0, rule.sport_low);
    EXPECT_EQ(65535, rule.sport_span);
    EXPECT_EQ(22, rule.dport_low);
    EXPECT_EQ(0, rule.dport_span);
}

TEST(SlowRules, PortsOfBothSides) {
    const slow_rule rule = compile("src port 1000-2000 dst port 53\n")->slow[0];
    EXPECT_EQ(0x0010u, rule.mask);
    EXPECT_EQ(1000, rule.sport_low);
    EXPECT_EQ(1000, rule.sport_span);
    EXPECT_EQ(53, rule.dport_low);
    EXPECT_EQ(0, rule.dport_span);
}

TEST(SlowRules, NumbersBecomeLowerBoundAndSpan) {
    const slow_rule rule =
        compile("vlan 10-20 phy 3 bytes 1000-MAX packets 3000000000-4294967295\n")->slow[0];
    EXPECT_EQ(0x1E00u, rule.mask);
    EXPECT_EQ(10, rule.vlan_low);
    EXPECT_EQ(10, rule.vlan_span);
    EXPECT_EQ(3, rule.phy_low);
    EXPECT_EQ(0, rule.phy_span);
    EXPECT_EQ(1000u, rule.bytes_low);
    EXPECT_EQ(4294966295u, rule.bytes_span);
    EXPECT_EQ(3000000000u, rule.packets_low);
    EXPECT_EQ(1294967295u, rule.packets_span);
}

TEST(SlowRules, EveryNumberOf32BitsIsTaken) {
    const auto rules = compile("bytes 3000000000\npackets 4294967295\n");
    EXPECT_EQ(3000000000u, rules->slow[0].bytes_low);
    EXPECT_EQ(0u, rules->slow[0].bytes_span);
    EXPECT_EQ(4294967295u, rules->slow[1].packets_low);
    EXPECT_EQ(0u, rules->slow[1].packets_span);
}

TEST(SlowRules, ProtocolsHaveNumbersAndNames) {
    const auto rules = compile("proto 132\nproto tcp\nproto icmp\n");
    EXPECT_EQ(0x0040u, rules->slow[0].mask);
    EXPECT_EQ(132, rules->slow[0].proto);
    EXPECT_EQ(6, rules->slow[1].proto);
    EXPECT_EQ(1, rules->slow[2].proto);
}

TEST(SlowRules, TheSideOfAProtocolIsIgnored) {
    const auto rules = compile("src proto tcp\ndst ipproto ipv6\n");
    EXPECT_EQ(0x0040u, rules->slow[0].mask);
    EXPECT_EQ(0x0002u, rules->slow[1].mask);
}

TEST(SlowRules, IpVersions) {
    const auto rules = compile("ipproto ipv4\nipproto ipv6\nipproto ipv4 ipproto ipv6\n");
    EXPECT_EQ(0x0001u, rules->slow[0].mask);
    EXPECT_EQ(0x0002u, rules->slow[1].mask);
    EXPECT_EQ(0x0003u, rules->slow[2].mask);
    EXPECT_EQ(0, rules->slow[0].family);
}

TEST(SlowRules, AFieldGivenTwiceHoldsTheLastValue) {
    const slow_rule rule = compile("vlan 1 vlan 2 proto tcp proto udp\n")->slow[0];
    EXPECT_EQ(0x0240u, rule.mask);
    EXPECT_EQ(2, rule.vlan_low);
    EXPECT_EQ(17, rule.proto);
}

}  // namespace
