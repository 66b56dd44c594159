#include "filter/filter_values.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "kestrelexp/filter.h"

namespace {

using words = std::array<uint32_t, 4>;

constexpr words zeros = {0, 0, 0, 0};
constexpr words ones = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
constexpr words unset = {0xAAAAAAAA, 0xAAAAAAAA, 0xAAAAAAAA, 0xAAAAAAAA};

// Bounds that show what was written.
struct parsed_address {
    int result;
    words src_low = unset;
    words src_high = unset;
    words dst_low = unset;
    words dst_high = unset;
    uint32_t sides;
    std::string message;
};

parsed_address parse(std::string value, int side = FILTER_SIDE_SOURCE,
                     uint32_t sides = FILTER_SIDE_SOURCE | FILTER_SIDE_DESTINATION) {
    parsed_address p;
    p.sides = sides;
    testing::internal::CaptureStderr();
    p.result = filter_parse_address(value.data(), side, p.src_low.data(), p.src_high.data(),
                                    p.dst_low.data(), p.dst_high.data(), &p.sides);
    p.message = testing::internal::GetCapturedStderr();
    return p;
}

void expect_ipv4(const char* value, uint32_t low, uint32_t high) {
    const parsed_address p = parse(value);
    EXPECT_EQ(4, p.result) << value;
    EXPECT_EQ("", p.message);
    EXPECT_EQ((words{low, unset[1], unset[2], unset[3]}), p.src_low) << value;
    EXPECT_EQ((words{high, unset[1], unset[2], unset[3]}), p.src_high) << value;
}

void expect_ipv6(const char* value, const words& low, const words& high) {
    const parsed_address p = parse(value);
    EXPECT_EQ(6, p.result) << value;
    EXPECT_EQ("", p.message);
    EXPECT_EQ(low, p.src_low) << value;
    EXPECT_EQ(high, p.src_high) << value;
}

void expect_refused(const char* value, const std::string& message) {
    const parsed_address p = parse(value);
    EXPECT_EQ(-1, p.result) << value;
    EXPECT_EQ(message + "\n", p.message);
    EXPECT_EQ(unset, p.src_low) << value;
    EXPECT_EQ(unset, p.src_high) << value;
}

TEST(FilterAddress, AnAddressIsARangeOfOne) {
    expect_ipv4("10.1.2.3", 0x0A010203, 0x0A010203);
    expect_ipv6("2001:db8::1", {1, 0, 0, 0x20010DB8}, {1, 0, 0, 0x20010DB8});
}

TEST(FilterAddress, WordZeroIsTheLeastSignificant) {
    expect_ipv6("1:2:3:4:5:6:7:8", {0x00070008, 0x00050006, 0x00030004, 0x00010002},
                {0x00070008, 0x00050006, 0x00030004, 0x00010002});
}

TEST(FilterAddress, APrefixOpensTheBitsBehindIt) {
    expect_ipv4("10.1.2.3/8", 0x0A000000, 0x0AFFFFFF);
    expect_ipv4("10.1.2.3/31", 0x0A010202, 0x0A010203);
    expect_ipv4("10.1.2.3/32", 0x0A010203, 0x0A010203);
    expect_ipv4("255.255.255.255/1", 0x80000000, 0xFFFFFFFF);
}

TEST(FilterAddress, AnIpv6PrefixOpensWholeWordsAndAPart) {
    expect_ipv6("2001:db8:1:2:3:4:5:6/32", {0, 0, 0, 0x20010DB8},
                {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0x20010DB8});
    expect_ipv6("2001:db8:1:2:3:4:5:6/48", {0, 0, 0x00010000, 0x20010DB8},
                {0xFFFFFFFF, 0xFFFFFFFF, 0x0001FFFF, 0x20010DB8});
    expect_ipv6("2001:db8:1:2:3:4:5:6/64", {0, 0, 0x00010002, 0x20010DB8},
                {0xFFFFFFFF, 0xFFFFFFFF, 0x00010002, 0x20010DB8});
    expect_ipv6("2001:db8:1:2:3:4:5:6/127", {0x00050006, 0x00030004, 0x00010002, 0x20010DB8},
                {0x00050007, 0x00030004, 0x00010002, 0x20010DB8});
    expect_ipv6("ffff::/1", {0, 0, 0, 0x80000000},
                {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF});
    expect_ipv6("::1/128", {1, 0, 0, 0}, {1, 0, 0, 0});
}

TEST(FilterAddress, APrefixOfZeroIsTheSingleAddress) {
    expect_ipv4("10.1.2.3/0", 0x0A010203, 0x0A010203);
    expect_ipv6("2001:db8::1/0", {1, 0, 0, 0x20010DB8}, {1, 0, 0, 0x20010DB8});
}

TEST(FilterAddress, APrefixThatIsNoNumberIsZero) {
    expect_ipv4("10.1.2.3/x", 0x0A010203, 0x0A010203);
    expect_ipv4("10.1.2.3/-8", 0x0A010203, 0x0A010203);
}

TEST(FilterAddress, APrefixLongerThanTheAddressIsRefused) {
    expect_refused("10.1.2.3/33", "Invalid mask found");
    expect_refused("::1/129", "Invalid mask found");
    expect_refused("10.1.2.3/4294967304", "Invalid mask found");
}

TEST(FilterAddress, APrefixNeedsExactlyTwoPieces) {
    expect_refused("10.1.2.3/", "Bad formated address/mask");
    expect_refused("/8", "Bad formated address/mask");
    expect_refused("/", "Bad formated address/mask");
    expect_refused("10.0.0.0/8/8", "Bad formated address/mask");
    expect_ipv4("10.0.0.0//8", 0x0A000000, 0x0AFFFFFF);  // empty pieces are dropped
}

TEST(FilterAddress, ARangeTakesBothEnds) {
    expect_ipv4("10.0.0.5-10.0.0.9", 0x0A000005, 0x0A000009);
    expect_ipv6("2001:db8::5-2001:db9::9", {5, 0, 0, 0x20010DB8}, {9, 0, 0, 0x20010DB9});
}

TEST(FilterAddress, TheEndsOfARangeAreNotOrdered) {
    expect_ipv4("10.0.0.9-10.0.0.5", 0x0A000009, 0x0A000005);
}

TEST(FilterAddress, APrefixBesideARangeMeansNothing) {
    expect_ipv4("10.0.0.5-10.0.0.9/8", 0x0A000005, 0x0A000009);
    expect_ipv4("10.0.0.5-10.0.0.9/99", 0x0A000005, 0x0A000009);
}

TEST(FilterAddress, ARangeNeedsExactlyTwoPieces) {
    expect_refused("10.0.0.5-", "Bad formated address-range");
    expect_refused("-10.0.0.5", "Bad formated address-range");
    expect_refused("-", "Bad formated address-range");
    expect_refused("10.0.0.1-10.0.0.2-10.0.0.3", "Bad formated address-range");
}

TEST(FilterAddress, FamiliesDoNotMix) {
    expect_refused("10.0.0.5-::1", "Unable to mix ipv4 and ipv6 address");
    expect_refused("::1-10.0.0.5", "Unable to mix ipv4 and ipv6 address");
}

TEST(FilterAddress, AHostThatIsNotFoundIsNamed) {
    const std::string no_host(64, 'x');  // no name has a part of 64 letters
    expect_refused(no_host.c_str(), "Unable to resolve host: " + no_host);
    expect_refused((no_host + "/8").c_str(), "Unable to resolve host: " + no_host);
    expect_refused((no_host + "-10.0.0.1").c_str(), "Unable to resolve host: " + no_host);
    expect_refused(("10.0.0.1-" + no_host).c_str(), "Unable to resolve host: " + no_host);
}

TEST(FilterAddress, NamesOfHostsAreResolved) {
    const parsed_address p = parse("localhost");
    EXPECT_EQ("", p.message);
    if (p.result == 4)  // which of its addresses comes first is the system's choice
        EXPECT_EQ(0x7F000001u, p.src_low[0]);
    else
        EXPECT_EQ((words{1, 0, 0, 0}), p.src_low);
}

TEST(FilterAddress, ASourceOpensADestinationThatHoldsNothing) {
    const parsed_address p = parse("10.0.0.1", FILTER_SIDE_SOURCE, 0);
    EXPECT_EQ(0x0A000001u, p.src_low[0]);
    EXPECT_EQ(0x0A000001u, p.src_high[0]);
    EXPECT_EQ(zeros, p.dst_low);
    EXPECT_EQ(ones, p.dst_high);
    EXPECT_EQ(1u, p.sides);
}

TEST(FilterAddress, ADestinationOpensASourceThatHoldsNothing) {
    const parsed_address p = parse("10.0.0.1", FILTER_SIDE_DESTINATION, 0);
    EXPECT_EQ(zeros, p.src_low);
    EXPECT_EQ(ones, p.src_high);
    EXPECT_EQ(0x0A000001u, p.dst_low[0]);
    EXPECT_EQ(0x0A000001u, p.dst_high[0]);
    EXPECT_EQ(2u, p.sides);
}

TEST(FilterAddress, WhatASideHoldsIsLeftToIt) {
    const parsed_address source = parse("10.0.0.1", FILTER_SIDE_SOURCE, 2);
    EXPECT_EQ(unset, source.dst_low);
    EXPECT_EQ(unset, source.dst_high);
    EXPECT_EQ(3u, source.sides);
    const parsed_address destination = parse("10.0.0.1", FILTER_SIDE_DESTINATION, 1);
    EXPECT_EQ(unset, destination.src_low);
    EXPECT_EQ(unset, destination.src_high);
    EXPECT_EQ(3u, destination.sides);
}

TEST(FilterAddress, EitherSideGoesToTheSourceAlone) {
    const parsed_address p = parse("10.0.0.1", FILTER_SIDE_EITHER, 0);
    EXPECT_EQ(0x0A000001u, p.src_low[0]);
    EXPECT_EQ(unset, p.dst_low);
    EXPECT_EQ(unset, p.dst_high);
    EXPECT_EQ(3u, p.sides);
}

TEST(FilterAddress, AFaultyValueStillOpensTheOtherSide) {
    const parsed_address p = parse("10.0.0.0/33", FILTER_SIDE_SOURCE, 0);
    EXPECT_EQ(-1, p.result);
    EXPECT_EQ(zeros, p.dst_low);
    EXPECT_EQ(ones, p.dst_high);
    EXPECT_EQ(1u, p.sides);
}

// ---- Ranges ----

template <typename T>
struct parsed_range {
    int result;
    T low1 = 7777;
    T high1 = 7777;
    T low2 = 7777;
    T high2 = 7777;
    uint32_t sides;
    std::string message;
};

template <typename T>
parsed_range<T> parse_range(std::string value, int side = FILTER_SIDE_EITHER, uint32_t sides = 0,
                            int services = 0) {
    parsed_range<T> p;
    p.sides = sides;
    testing::internal::CaptureStderr();
    if constexpr (sizeof(T) == 2)
        p.result = filter_parse_range16(value.data(), side, &p.low1, &p.high1, &p.low2, &p.high2,
                                        &p.sides, services);
    else
        p.result = filter_parse_range32(value.data(), side, &p.low1, &p.high1, &p.low2, &p.high2,
                                        &p.sides, services);
    p.message = testing::internal::GetCapturedStderr();
    return p;
}

template <typename T>
void expect_range(const char* value, T low, T high, int services = 0) {
    const auto p = parse_range<T>(value, FILTER_SIDE_EITHER, 0, services);
    EXPECT_EQ(0, p.result) << value;
    EXPECT_EQ("", p.message);
    EXPECT_EQ(low, p.low1) << value;
    EXPECT_EQ(high, p.high1) << value;
    EXPECT_EQ(low, p.low2) << value;
    EXPECT_EQ(high, p.high2) << value;
    EXPECT_EQ(3u, p.sides);
}

template <typename T>
void expect_range_refused(const char* value, const char* message, int services = 0) {
    const auto p = parse_range<T>(value, FILTER_SIDE_EITHER, 0, services);
    EXPECT_EQ(-1, p.result) << value;
    EXPECT_EQ(std::string(message) + "\n", p.message);
    EXPECT_EQ(7777u, p.low1);
    EXPECT_EQ(0u, p.sides);
}

TEST(FilterRange, ANumberIsARangeOfOne) {
    expect_range<uint16_t>("53", 53, 53);
    expect_range<uint32_t>("53", 53, 53);
    expect_range<uint16_t>("0", 0, 0);
    expect_range<uint16_t>("00053", 53, 53);
}

TEST(FilterRange, EveryNumberOf32BitsIsTaken) {
    expect_range<uint32_t>("2147483648", 2147483648u, 2147483648u);
    expect_range<uint32_t>("3000000000", 3000000000u, 3000000000u);
    expect_range<uint32_t>("4294967295", 4294967295u, 4294967295u);
}

TEST(FilterRange, NumbersAreCutToTheWidth) {
    expect_range<uint16_t>("65537", 1, 1);
    expect_range<uint32_t>("4294967297", 1, 1);
    expect_range<uint16_t>("65537-65540", 1, 4);
    expect_range<uint32_t>("99999999999999999999", 0xFFFFFFFF, 0xFFFFFFFF);
}

TEST(FilterRange, ARangeHasTwoEnds) {
    expect_range<uint16_t>("1024-2048", 1024, 2048);
    expect_range<uint32_t>("1000-3000000000", 1000, 3000000000u);
    expect_range<uint16_t>("5-5", 5, 5);
}

TEST(FilterRange, MaxIsTheLargestNumber) {
    expect_range<uint16_t>("1024-MAX", 1024, 65535);
    expect_range<uint32_t>("1000-MAX", 1000, 4294967295u);
}

TEST(FilterRange, MaxIsOnlyKnownAsTheUpperEnd) {
    expect_range<uint16_t>("MAX-5", 0, 5);
    expect_range_refused<uint16_t>("5-max", "invalid range: 5-0");
    expect_range_refused<uint16_t>("MAX", "Invalid number: MAX");
}

TEST(FilterRange, AThirdPieceIsIgnored) {
    expect_range<uint16_t>("1-2-3", 1, 2);
}

TEST(FilterRange, PiecesAreNotCheckedForDigits) {
    expect_range<uint16_t>("abc-def", 0, 0);
    expect_range<uint16_t>("http-alt", 0, 0, 1);
    expect_range<uint32_t>("5x-6y", 5, 6);
}

TEST(FilterRange, ARangeNeedsTwoPieces) {
    expect_range_refused<uint16_t>("80-", "Bad formatted range");
    expect_range_refused<uint16_t>("-80", "Bad formatted range");
    expect_range_refused<uint32_t>("-", "Bad formatted range");
}

TEST(FilterRange, TheLowerEndStandsFirst) {
    expect_range_refused<uint16_t>("5-4", "invalid range: 5-4");
    expect_range_refused<uint16_t>("65535-65536", "invalid range: 65535-0");
    expect_range_refused<uint32_t>("1000-5", "invalid range: 1000-5");
    expect_range_refused<uint32_t>("3000000000-5", "invalid range: -1294967296-5");
}

TEST(FilterRange, WhatIsNoNumberIsNamed) {
    expect_range_refused<uint16_t>("ssh", "Invalid number: ssh");
    expect_range_refused<uint32_t>("12x", "Invalid number: 12x");
    expect_range_refused<uint32_t>("+12", "Invalid number: +12");
}

TEST(FilterRange, ServicesHaveNamesWhereTheyAreAllowed) {
    expect_range<uint16_t>("ssh", 22, 22, 1);
    expect_range<uint16_t>("domain", 53, 53, 1);
    expect_range_refused<uint16_t>("nosuchservice", "Unknown service name: nosuchservice", 1);
}

TEST(FilterRange, ASingleSideOpensTheOther) {
    const auto source = parse_range<uint16_t>("53", FILTER_SIDE_SOURCE);
    EXPECT_EQ(53, source.low1);
    EXPECT_EQ(53, source.high1);
    EXPECT_EQ(0, source.low2);
    EXPECT_EQ(65535, source.high2);
    EXPECT_EQ(1u, source.sides);
    const auto destination = parse_range<uint16_t>("53", FILTER_SIDE_DESTINATION);
    EXPECT_EQ(0, destination.low1);
    EXPECT_EQ(65535, destination.high1);
    EXPECT_EQ(53, destination.low2);
    EXPECT_EQ(53, destination.high2);
    EXPECT_EQ(2u, destination.sides);
}

TEST(FilterRange, ASingleSideOpensTheOtherTo65535InBothWidths) {
    const auto source = parse_range<uint32_t>("100000", FILTER_SIDE_SOURCE);
    EXPECT_EQ(100000u, source.low1);
    EXPECT_EQ(0u, source.low2);
    EXPECT_EQ(65535u, source.high2);
    const auto destination = parse_range<uint32_t>("100000", FILTER_SIDE_DESTINATION);
    EXPECT_EQ(0u, destination.low1);
    EXPECT_EQ(65535u, destination.high1);
    EXPECT_EQ(100000u, destination.high2);
}

TEST(FilterRange, WhatASideHoldsIsLeftToIt) {
    const auto source = parse_range<uint16_t>("53", FILTER_SIDE_SOURCE, FILTER_SIDE_DESTINATION);
    EXPECT_EQ(7777, source.low2);
    EXPECT_EQ(7777, source.high2);
    EXPECT_EQ(3u, source.sides);
    const auto destination =
        parse_range<uint16_t>("53", FILTER_SIDE_DESTINATION, FILTER_SIDE_SOURCE);
    EXPECT_EQ(7777, destination.low1);
    EXPECT_EQ(7777, destination.high1);
    EXPECT_EQ(3u, destination.sides);
}

TEST(FilterDigits, OnlyDigitsMakeANumber) {
    EXPECT_EQ(7, kestrel::all_digits("007"));
    EXPECT_EQ(std::nullopt, kestrel::all_digits("7a"));
    EXPECT_EQ(std::nullopt, kestrel::all_digits("-7"));
}

}  // namespace
