#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/filter_fixture.h"

namespace {

using namespace kestrel_test;

flow_record with_port(uint16_t port) {
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    record.dstport = port;
    return record;
}

// ---- Which road a flow takes ----

TEST(FilterMatch, WithoutRulesEveryFlowIsDropped) {
    const auto rules = compile("# nothing\n");
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "10.0.0.2"));
    EXPECT_FALSE(keeps(rules, "::1", "::2"));
}

TEST(FilterMatch, AFastTableDropsWhatItDoesNotHold) {
    const auto rules = compile("fast src addr 10.0.0.0/8\n");
    EXPECT_TRUE(keeps(rules, "10.1.1.1", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "11.0.0.1", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "9.255.255.255", "10.1.1.1"));
}

TEST(FilterMatch, WithoutSlowRulesTheOtherFamilyIsDropped) {
    EXPECT_FALSE(keeps(compile("fast src addr 10.0.0.0/8\n"), "2001:db8::1", "2001:db8::2"));
    EXPECT_FALSE(keeps(compile("fast src addr 2001:db8::/32\n"), "10.0.0.1", "10.0.0.2"));
}

TEST(FilterMatch, TheOtherFamilyGoesStraightToTheSlowRules) {
    const auto rules = compile("fast src addr 10.0.0.0/8\nany\n");
    EXPECT_TRUE(keeps(rules, "2001:db8::1", "2001:db8::2"));
    EXPECT_FALSE(keeps(rules, "11.0.0.1", "192.0.2.1"));
}

TEST(FilterMatch, AFastHitStillNeedsTheSlowRules) {
    const auto rules = compile("fast src addr 10.0.0.0/8\nport 80\n");
    EXPECT_TRUE(keeps(rules, with_port(80)));
    EXPECT_FALSE(keeps(rules, with_port(81)));
}

TEST(FilterMatch, ANegatedFastEntryDropsWhatItHolds) {
    const auto rules = compile("fast not src addr 10.0.0.0/8\n");
    EXPECT_FALSE(keeps(rules, "10.1.1.1", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "11.0.0.1", "192.0.2.1"));  // and what no entry holds, too
}

TEST(FilterMatch, ANegatedFastEntryDropsBeforeTheSlowRules) {
    const auto rules = compile("fast not src addr 10.0.0.0/8\nfast src addr 11.0.0.0/8\nany\n");
    EXPECT_FALSE(keeps(rules, "10.1.1.1", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "11.0.0.1", "192.0.2.1"));
}

TEST(FilterMatch, AFlowOfNoFamilyGoesToTheSlowRules) {
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    record.l3protocol = 0;
    EXPECT_FALSE(keeps(compile("fast src addr 10.0.0.1\n"), record));
    EXPECT_TRUE(keeps(compile("fast src addr 10.0.0.9\nany\n"), record));
    EXPECT_FALSE(keeps(compile("ipproto ipv4\nipproto ipv6\n"), record));
}

TEST(FilterMatch, TheLengthOfAFastTableIsASigned32BitNumber) {
    const auto rules =
        compile("fast src addr 10.0.0.1\nfast src addr 10.0.0.2\nfast src addr ::1\n");
    rules->fast4_count = rules->fast6_count = 0x1'0000'0001;  // one entry
    EXPECT_TRUE(keeps(rules, "10.0.0.1", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "10.0.0.2", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "::1", "::9"));
    rules->fast4_count = rules->fast6_count = 0x8000'0000;  // less than none
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, "::1", "::9"));
}

TEST(FilterMatch, TheRecordIsNotChanged) {
    const auto rules = compile("fast src addr 10.0.0.0/8\nphy 3\nsrc addr 10.0.0.1 port 80\n");
    flow_record record = flow("10.0.0.1", "10.0.0.2");
    const flow_record before = record;
    EXPECT_EQ(0, filter_test(rules.get(), &record));
    EXPECT_EQ(0, std::memcmp(&before, &record, sizeof record));
}

// ---- Fast IPv4 ----

TEST(FastIpv4, EdgesOfARangeAreInside) {
    const auto rules = compile("fast src addr 10.0.0.5-10.0.0.9\n");
    EXPECT_FALSE(keeps(rules, "10.0.0.4", "0.0.0.0"));
    EXPECT_TRUE(keeps(rules, "10.0.0.5", "0.0.0.0"));
    EXPECT_TRUE(keeps(rules, "10.0.0.9", "255.255.255.255"));
    EXPECT_FALSE(keeps(rules, "10.0.0.10", "0.0.0.0"));
}

TEST(FastIpv4, SourceAndDestinationMustBothFit) {
    const auto rules = compile("fast src addr 10.0.0.1 dst addr 10.0.0.2\n");
    EXPECT_TRUE(keeps(rules, "10.0.0.1", "10.0.0.2"));
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "10.0.0.1"));
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "10.0.0.3"));
    EXPECT_FALSE(keeps(rules, "10.0.0.2", "10.0.0.1"));
}

TEST(FastIpv4, EveryEntryOfADisjointListIsFound) {
    std::string list;
    for (unsigned i = 0; i < 250; ++i)
        list += "fast src addr 10.0." + std::to_string((i * 7) % 250) + ".0/25\n";
    const auto rules = compile(list);
    for (unsigned i = 0; i < 250; ++i) {
        const std::string net = "10.0." + std::to_string(i) + ".";
        EXPECT_TRUE(keeps(rules, (net + "0").c_str(), "192.0.2.1")) << i;
        EXPECT_TRUE(keeps(rules, (net + "127").c_str(), "192.0.2.1")) << i;
        EXPECT_FALSE(keeps(rules, (net + "128").c_str(), "192.0.2.1")) << i;
    }
}

TEST(FastIpv4, DestinationsOfOneSourceAreAllFound) {
    const auto rules = compile(
        "fast src addr 10.0.0.1 dst addr 192.0.2.1\nfast src addr 10.0.0.1 dst addr 192.0.2.5\n"
        "fast src addr 10.0.0.1 dst addr 192.0.2.9\n");
    for (const char* destination : {"192.0.2.1", "192.0.2.5", "192.0.2.9"})
        EXPECT_TRUE(keeps(rules, "10.0.0.1", destination)) << destination;
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "192.0.2.2"));
}

TEST(FastIpv4, OverlappingEntriesHideOneAnother) {
    // Entries: any source, 10.0.0.0-10.0.0.255. The search begins at the second one and, for a
    // source after it, never comes back to the first.
    const auto rules = compile("fast dst addr 192.0.2.1\nfast src addr 10.0.0.0/24\n");
    EXPECT_TRUE(keeps(rules, "9.0.0.1", "192.0.2.1"));
    EXPECT_TRUE(keeps(rules, "10.0.0.1", "192.0.2.9"));
    EXPECT_FALSE(keeps(rules, "11.0.0.1", "192.0.2.1"));
}

// Two entries: everything, and 10.0.0.0/8 with any destination. The search begins at the second
// one; a source above it is never held against the first.
TEST(FastIpv4, WithoutASideAllButSourcesAboveTheRangeAreKept) {
    const auto rules = compile("fast addr 10.0.0.0/8\n");
    EXPECT_TRUE(keeps(rules, "10.0.0.1", "10.0.0.2"));
    EXPECT_TRUE(keeps(rules, "9.0.0.1", "9.0.0.2"));
    EXPECT_FALSE(keeps(rules, "11.0.0.1", "10.0.0.2"));
    EXPECT_FALSE(keeps(rules, "::1", "::2"));
}

// ---- Fast IPv6 ----

TEST(FastIpv6, PrefixesOfSourcesAreFound) {
    const auto rules = compile(
        "fast src addr 2001:db8:1::/48\nfast src addr 2001:db8:3::/64\n"
        "fast src addr 2001:db8:5::/48\n");
    EXPECT_TRUE(keeps(rules, "2001:db8:1::", "::1"));
    EXPECT_TRUE(keeps(rules, "2001:db8:1:ffff:ffff:ffff:ffff:ffff", "::1"));
    EXPECT_TRUE(keeps(rules, "2001:db8:3::9", "::1"));
    EXPECT_TRUE(keeps(rules, "2001:db8:5:1::9", "::1"));
    EXPECT_FALSE(keeps(rules, "2001:db8:2::1", "::1"));
    EXPECT_FALSE(keeps(rules, "2001:db8:3:1::9", "::1"));
    EXPECT_FALSE(keeps(rules, "2001:db8:6::1", "::1"));
}

TEST(FastIpv6, HostsOfOneNetworkAreFound) {
    const auto rules = compile("fast src addr 2001:db8::2\nfast src addr 2001:db8::1:0:0:1\n");
    EXPECT_TRUE(keeps(rules, "2001:db8::2", "::1"));
    EXPECT_TRUE(keeps(rules, "2001:db8::1:0:0:1", "::1"));
    EXPECT_FALSE(keeps(rules, "2001:db8::3", "::1"));
}

TEST(FastIpv6, HostsOfSeveralNetworksHideOneAnother) {
    // Sorted by their low halves: 3001::1, 2001:db8::2. The search begins at the second one and
    // looks in front of it for smaller networks, after it for larger ones.
    const auto rules = compile("fast src addr 2001:db8::2\nfast src addr 3001::1\n");
    EXPECT_TRUE(keeps(rules, "2001:db8::2", "::1"));
    EXPECT_FALSE(keeps(rules, "3001::1", "::1"));
}

TEST(FastIpv6, EachWordOfARangeIsARangeOfItsOwn) {
    const auto rules = compile("fast src addr 2001:db8::1-2001:db9::3\n");
    EXPECT_TRUE(keeps(rules, "2001:db8::2", "::1"));
    EXPECT_TRUE(keeps(rules, "2001:db9::1", "::1"));
    EXPECT_FALSE(keeps(rules, "2001:db8::4", "::1"));  // lies between the ends, all the same
    EXPECT_FALSE(keeps(rules, "2001:db8::1:1", "::1"));
}

// The lower bound of each destination word is held against another word of the flow: word 3 of the
// bound against destination word 0, words 2, 1 and 0 against source words 3, 2 and 1.
TEST(FastIpv6, ADestinationIsOnlyFoundWhenOtherWordsAreHighEnough) {
    const auto rules = compile("fast dst addr 2001:db8::/32\n");
    EXPECT_TRUE(keeps(rules, "::1", "2001:db8::2001:db8"));
    EXPECT_TRUE(keeps(rules, "::1", "2001:db8::ffff:ffff"));
    EXPECT_FALSE(keeps(rules, "::1", "2001:db8::2001:db7"));
    EXPECT_FALSE(keeps(rules, "::1", "2001:db8::1"));
    EXPECT_FALSE(keeps(rules, "::1", "2001:db7::ffff:ffff"));
    EXPECT_FALSE(keeps(rules, "::1", "2001:db9::ffff:ffff"));
}

TEST(FastIpv6, WordTwoOfADestinationIsHeldAgainstSourceWordThree) {
    const auto rules = compile("fast dst addr 0:0:5::\n");
    EXPECT_FALSE(keeps(rules, "4:ffff::", "0:0:5::"));
    EXPECT_TRUE(keeps(rules, "5::", "0:0:5::"));
}

TEST(FastIpv6, WordOneOfADestinationIsHeldAgainstSourceWordTwo) {
    const auto rules = compile("fast dst addr ::5:0:0:0\n");
    EXPECT_FALSE(keeps(rules, "ffff::", "::5:0:0:0"));
    EXPECT_TRUE(keeps(rules, "0:0:5::", "::5:0:0:0"));
}

TEST(FastIpv6, WordZeroOfADestinationIsHeldAgainstSourceWordOne) {
    const auto rules = compile("fast dst addr ::5\n");
    EXPECT_FALSE(keeps(rules, "ffff::ffff:ffff", "::5"));
    EXPECT_TRUE(keeps(rules, "::5:0:0", "::5"));
    EXPECT_FALSE(keeps(rules, "::5:0:0", "::6"));
}

TEST(FastIpv6, WithoutASideEveryIpv6FlowIsKept) {
    const auto rules = compile("fast addr 2001:db8::1\n");
    EXPECT_TRUE(keeps(rules, "::", "ffff::"));
    EXPECT_TRUE(keeps(rules, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "::"));
    EXPECT_FALSE(keeps(rules, "10.0.0.1", "10.0.0.2"));
}

TEST(FastIpv6, OnlyTheLow16BitsOfNegateCount) {
    const auto rules = compile("fast src addr ::1\n");
    rules->fast6[0].negate = 0x10000;
    EXPECT_TRUE(keeps(rules, "::1", "::2"));
    rules->fast6[0].negate = 0x10001;
    EXPECT_FALSE(keeps(rules, "::1", "::2"));
}

}  // namespace
