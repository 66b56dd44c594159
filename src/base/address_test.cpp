#include "base/address.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

namespace {

using namespace kestrel;
using words = std::array<uint32_t, 4>;

words words_of(const char* text) {
    const std::optional<ip_address> address = numeric_address(text);
    return address ? std::to_array(address->words) : words{1, 1, 1, 1};
}

int family_of(const char* text) {
    const std::optional<ip_address> address = numeric_address(text);
    return address ? address->family : -1;
}

TEST(Address, Ipv4IsAHostOrderNumber) {
    EXPECT_EQ(AF_INET, family_of("192.0.2.1"));
    EXPECT_EQ((words{0xC0000201, 0, 0, 0}), words_of("192.0.2.1"));
}

TEST(Address, Ipv6HasItsLeastSignificantWordFirst) {
    EXPECT_EQ(AF_INET6, family_of("2001:db8::a:1"));
    EXPECT_EQ((words{0x000A0001, 0, 0, 0x20010DB8}), words_of("2001:db8::a:1"));
    EXPECT_EQ((words{0x00070008, 0x00050006, 0x00030004, 0x00010002}), words_of("1:2:3:4:5:6:7:8"));
}

TEST(Address, OlderWaysToWriteNumbersAreUnderstood) {
    EXPECT_EQ((words{0x0A000001, 0, 0, 0}), words_of("10.1"));
    EXPECT_EQ((words{0x08000001, 0, 0, 0}), words_of("010.0.0.1"));
    EXPECT_EQ((words{0x0A0B0C0D, 0, 0, 0}), words_of("0x0a0b0c0d"));
}

TEST(Address, NamesAreLookedUpOnlyWhereTheyMayBe) {
    EXPECT_EQ(-1, family_of("localhost"));
    const std::optional<ip_address> address = resolve_address("localhost");
    ASSERT_TRUE(address.has_value());
    EXPECT_TRUE(address->family == AF_INET || address->family == AF_INET6);
}

TEST(Address, WhatIsNoAddressIsNone) {
    for (const char* text :
         {"", " ", "192.0.2.256", "192.0.2.1 ", "2001:db8:::1", "12345::", "1.2.3.4.5", "::1/64"})
        EXPECT_EQ(-1, family_of(text)) << text;
}

}  // namespace
