#include "filter/filter_dump.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/filter_fixture.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

std::string fast4_text(const char* rule) {
    return describe(compile(rule)->fast4[0]);
}
std::string fast6_text(const char* rule) {
    return describe(compile(rule)->fast6[0]);
}
std::string slow_text(const char* rule) {
    return describe(compile(rule)->slow[0]);
}

TEST(FilterDump, FastEntriesShowBothRanges) {
    EXPECT_EQ("src addr 10.0.0.0-10.255.255.255 dst addr 0.0.0.0-255.255.255.255 ",
              fast4_text("fast src addr 10.0.0.0/8"));
    EXPECT_EQ("src addr 2001:db8::-2001:db8:ffff:ffff:ffff:ffff:ffff:ffff dst addr ::1-::1 ",
              fast6_text("fast src addr 2001:db8::/32 dst addr ::1"));
}

TEST(FilterDump, NegatedFastEntriesBeginWithNot) {
    EXPECT_EQ("not src addr 10.0.0.1-10.0.0.1 dst addr 10.0.0.2-10.0.0.2 ",
              fast4_text("fast not src addr 10.0.0.1 dst addr 10.0.0.2"));
    EXPECT_EQ(
        "not src addr ::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff "
        "dst addr ::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff ",
        fast6_text("fast not addr ::1"));
}

TEST(FilterDump, SlowRulesShowTheirMask) {
    EXPECT_EQ("mask: 0, not ", slow_text("not"));
    EXPECT_EQ("mask: 2000, any ", slow_text("any"));
    EXPECT_EQ("mask: 2000, not any ", slow_text("not any"));
    EXPECT_EQ("mask: 1, ipproto ipv4 ", slow_text("ipproto ipv4"));
    EXPECT_EQ("mask: 2, ipproto ipv6 ", slow_text("ipproto ipv6"));
}

TEST(FilterDump, SlowRulesShowAddressesByFamilyAndSide) {
    EXPECT_EQ("mask: D, ipproto ipv4 addr 10.0.0.0-10.0.0.255 ", slow_text("addr 10.0.0.0/24"));
    EXPECT_EQ("mask: 5, ipproto ipv4 src addr 10.0.0.1-10.0.0.1 dst addr 0.0.0.0-255.255.255.255 ",
              slow_text("src addr 10.0.0.1"));
    EXPECT_EQ("mask: E, ipproto ipv6 addr ::1-::1 ", slow_text("addr ::1"));
    EXPECT_EQ(
        "mask: 6, ipproto ipv6 src addr ::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff "
        "dst addr 2001:db8::-2001:db8::ffff ",
        slow_text("dst addr 2001:db8::/112"));
}

TEST(FilterDump, SlowRulesShowTheirConditionsInOneOrder) {
    EXPECT_EQ(
        "mask: 1E70, proto 17 port 53-53 vlan 1-4 phy 2-2 bytes 1000-4294967295 "
        "packets 3000000000-3000000001 ",
        slow_text("packets 3000000000-3000000001 bytes 1000-MAX phy 2 vlan 1-4 port domain "
                  "proto udp"));
    EXPECT_EQ("mask: 10, src port 1-2 dst port 0-65535 ", slow_text("src port 1-2"));
}

TEST(FilterDump, AtLevel0TheFilterIsOk) {
    EXPECT_EQ("VERBOSE: 0:Filter OK\n", load_rules("any\n", 0).messages);
}

TEST(FilterDump, AtLevel5SizesAndCountsFollow) {
    EXPECT_EQ(
        "VERBOSE: 0:Filter OK\n"
        "VERBOSE: 5:size:  fast4: 20, fast6: 68, slow: 128\n"
        "VERBOSE: 5:count: fast4: 2, fast6: 1, slow: 3\n",
        load_rules("fast addr 10.0.0.1\nfast src addr ::1\nany\nany\nany\n", 5).messages);
}

TEST(FilterDump, AtLevel7EveryRuleIsShown) {
    EXPECT_EQ(
        "VERBOSE: 7:fast rule : src addr 10.0.0.1-10.0.0.1 dst addr 0.0.0.0-255.255.255.255 \n"
        "VERBOSE: 7:fast rule : src addr 10.0.0.2-10.0.0.2 dst addr 0.0.0.0-255.255.255.255 \n"
        "VERBOSE: 7:rule 0 string:  port  80\n"
        "VERBOSE: 7:rule 0 data  : mask: 30, port 80-80 \n"
        "VERBOSE: 7:rule 1 string: not any\n"
        "VERBOSE: 7:rule 1 data  : mask: 2000, not any \n"
        "VERBOSE: 0:Filter OK\n"
        "VERBOSE: 5:size:  fast4: 20, fast6: 68, slow: 128\n"
        "VERBOSE: 5:count: fast4: 2, fast6: 0, slow: 2\n",
        load_rules("fast src addr 10.0.0.2\n port  80\nfast src addr 10.0.0.1\nnot any\n", 7)
            .messages);
}

TEST(FilterDump, AtLevel10TheLinesAreShownAsTheyAreRead) {
    const std::string expected =
        "VERBOSE:10:fast filter rule: fast  addr ::1-::2\n"
        "VERBOSE:10:ipv6 addr found\n"
        "VERBOSE:10:Need to create mirror rule\n"
        "VERBOSE:10:blank rule found\n"
        "VERBOSE:10:slow filter rule: addr 10.0.0.1-10.0.0.2\n"
        "VERBOSE:10:ipv4 addr found\n"
        "VERBOSE: 7:fast rule : src addr ";
    const std::string messages =
        load_rules("fast  addr ::1-::2\n    \naddr 10.0.0.1-10.0.0.2\n", 10).messages;
    EXPECT_EQ(expected, messages.substr(0, expected.size()));
}

}  // namespace
