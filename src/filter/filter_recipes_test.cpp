// What docs/filter-rules.md advises under "How to write what you mean" does what is meant.
#include <gtest/gtest.h>

#include "tests/support/filter_fixture.h"

namespace {

using namespace kestrel_test;

constexpr const char* outside = "203.0.113.1";

flow_record with_interface(uint16_t interface) {
    flow_record record = flow("10.0.0.1", outside);
    record.inputsnmp = interface;
    return record;
}

flow_record with_bytes(uint32_t bytes, uint16_t port = 80) {
    flow_record record = flow("10.0.0.1", outside);
    record.bytes = bytes;
    record.dstport = port;
    return record;
}

TEST(FilterRecipes, OnlyFlowsFromTheseIpv4Networks) {
    const auto rules = compile("fast src addr 192.0.2.0/24\nfast src addr 10.0.0.0/8\n");
    EXPECT_TRUE(keeps(rules, "10.1.2.3", outside));
    EXPECT_TRUE(keeps(rules, "192.0.2.9", "10.1.2.3"));
    EXPECT_FALSE(keeps(rules, outside, "10.1.2.3"));
}

TEST(FilterRecipes, OnlyFlowsToTheseIpv4Networks) {
    const auto rules = compile(
        "fast dst addr 192.0.2.0/24\nfast dst addr 10.0.0.0/8\nfast dst addr 172.16.0.0/12\n");
    for (const char* source : {"0.0.0.0", "10.0.0.1", "255.255.255.255"}) {
        EXPECT_TRUE(keeps(rules, source, "10.1.2.3")) << source;
        EXPECT_TRUE(keeps(rules, source, "172.31.0.1")) << source;
        EXPECT_TRUE(keeps(rules, source, "192.0.2.9")) << source;
        EXPECT_FALSE(keeps(rules, source, outside)) << source;
    }
}

TEST(FilterRecipes, OnlyFlowsFromOrToTheseIpv4Networks) {
    const auto rules = compile("addr 10.0.0.0/8\naddr 192.0.2.0/24\n");
    EXPECT_TRUE(keeps(rules, "10.1.2.3", outside));
    EXPECT_TRUE(keeps(rules, outside, "10.1.2.3"));
    EXPECT_TRUE(keeps(rules, outside, "192.0.2.1"));
    EXPECT_FALSE(keeps(rules, outside, outside));
}

TEST(FilterRecipes, OnlyFlowsFromTheseIpv6Networks) {
    const auto rules = compile(
        "fast src addr 2001:db8:9::/48\nfast src addr 2001:db8:1::/48\n"
        "fast src addr fd00::/8\nfast src addr 2001:db8:5:7::/64\n");
    for (const char* source : {"2001:db8:1::1", "2001:db8:5:7:8:9:a:b",
                               "2001:db8:9:ffff::", "fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"})
        EXPECT_TRUE(keeps(rules, source, "::1")) << source;
    for (const char* source : {"2001:db8::1", "2001:db8:5:8::1", "2001:db8:a::", "fe80::1"})
        EXPECT_FALSE(keeps(rules, source, "2001:db8:1::1")) << source;
}

TEST(FilterRecipes, OnlyFlowsToTheseIpv6Hosts) {
    const auto rules = compile("dst addr 2001:db8::1\ndst addr 2001:db8::2\n");
    EXPECT_TRUE(keeps(rules, "::1", "2001:db8::1"));
    EXPECT_TRUE(keeps(rules, "ffff::ffff:ffff:ffff:ffff", "2001:db8::2"));
    EXPECT_FALSE(keeps(rules, "2001:db8::1", "2001:db8::3"));
    EXPECT_FALSE(keeps(rules, "2001:db8::1", "3001::1"));
}

TEST(FilterRecipes, EverythingBut) {
    const auto rules = compile("not addr 10.9.9.9\nnot port ssh\nany\n");
    flow_record ssh = flow("10.0.0.1", outside);
    ssh.dstport = 22;
    EXPECT_FALSE(keeps(rules, "10.9.9.9", outside));
    EXPECT_FALSE(keeps(rules, outside, "10.9.9.9"));
    EXPECT_FALSE(keeps(rules, ssh));
    EXPECT_TRUE(keeps(rules, "10.9.9.8", outside));
    EXPECT_TRUE(keeps(rules, "::1", "::2"));
}

TEST(FilterRecipes, EveryIpv4Address) {
    for (const char* text : {"ipproto ipv4\n", "addr 0.0.0.0-255.255.255.255\n"}) {
        const auto rules = compile(text);
        EXPECT_TRUE(keeps(rules, "0.0.0.0", "0.0.0.0")) << text;
        EXPECT_TRUE(keeps(rules, "255.255.255.255", "255.255.255.255")) << text;
        EXPECT_FALSE(keeps(rules, "::1", "::2")) << text;
    }
}

TEST(FilterRecipes, NoSmallFlowsButDns) {
    const auto rules = compile("port domain\nbytes 0-99\nany\n");
    EXPECT_FALSE(keeps(rules, with_bytes(99)));
    EXPECT_TRUE(keeps(rules, with_bytes(100)));
    EXPECT_TRUE(keeps(rules, with_bytes(99, 53)));
}

TEST(FilterRecipes, OnlyFlowsOfOneInterface) {
    const auto rules = compile("phy 0-2\nphy 4-MAX\nany\n");
    EXPECT_TRUE(keeps(rules, with_interface(3)));
    for (const uint16_t other : std::initializer_list<uint16_t>{0, 2, 4, 65535})
        EXPECT_FALSE(keeps(rules, with_interface(other))) << other;
}

TEST(FilterRecipes, AListAndTheOtherIpVersionWhole) {
    const auto rules = compile("fast src addr 10.0.0.0/8\nany\n");
    EXPECT_TRUE(keeps(rules, "10.0.0.1", outside));
    EXPECT_FALSE(keeps(rules, outside, "10.0.0.1"));
    EXPECT_TRUE(keeps(rules, "::1", "::2"));
}

TEST(FilterRecipes, TheOtherIpVersionAloneAsASlowRuleDropsTheList) {
    const auto rules = compile("fast src addr 10.0.0.0/8\nipproto ipv6\n");
    EXPECT_FALSE(keeps(rules, "10.0.0.1", outside));
    EXPECT_TRUE(keeps(rules, "::1", "::2"));
}

}  // namespace
