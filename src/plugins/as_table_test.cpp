#include "plugins/as_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <initializer_list>

#include "kestrelexp/builtin.h"

namespace {

using namespace kestrel;

struct network4 {
    uint32_t asn;
    uint32_t address;
    uint16_t prefix_len;
};

as_tables table4(std::initializer_list<network4> networks) {
    as_tables tables;
    for (const network4& network : networks)
        tables.table4.push_back(make_as4_entry(network.asn, network.address, network.prefix_len));
    sort_as_tables(tables);
    return tables;
}

struct network6 {
    uint32_t asn;
    uint32_t words[4];
    uint16_t prefix_len;
};

as_tables table6(std::initializer_list<network6> networks) {
    as_tables tables;
    for (const network6& network : networks)
        tables.table6.push_back(make_as6_entry(network.asn, network.words, network.prefix_len));
    sort_as_tables(tables);
    return tables;
}

uint32_t find6(const as_tables& tables, std::array<uint32_t, 4> words) {
    uint8_t address[16];
    std::copy_n(reinterpret_cast<const uint8_t*>(words.data()), 16, address);
    return find_as6(tables.table6, address);
}

TEST(AsMask, Ipv4MasksHaveTheirMostSignificantBitsSet) {
    EXPECT_EQ(0u, mask_array4[0]);
    EXPECT_EQ(0x80000000u, mask_array4[1]);
    EXPECT_EQ(0xFF000000u, mask_array4[8]);
    EXPECT_EQ(0xFFFFFFFEu, mask_array4[31]);
    EXPECT_EQ(0xFFFFFFFFu, mask_array4[32]);
}

using mask = std::array<uint32_t, 4>;

TEST(AsMask, Ipv6MasksFillUpFromTheLeastSignificantWord) {
    constexpr uint32_t all = 0xFFFFFFFF;
    EXPECT_EQ((mask{0, 0, 0, 0}), std::to_array(mask_array6[0]));
    EXPECT_EQ((mask{0x80000000, 0, 0, 0}), std::to_array(mask_array6[1]));
    EXPECT_EQ((mask{all, 0, 0, 0}), std::to_array(mask_array6[32]));
    EXPECT_EQ((mask{all, 0x80000000, 0, 0}), std::to_array(mask_array6[33]));
    EXPECT_EQ((mask{all, 0xFFFF0000, 0, 0}), std::to_array(mask_array6[48]));
    EXPECT_EQ((mask{all, all, 0, 0}), std::to_array(mask_array6[64]));
    EXPECT_EQ((mask{all, all, 0xFF000000, 0}), std::to_array(mask_array6[72]));
    EXPECT_EQ((mask{all, all, all, 0xFFFFFFFE}), std::to_array(mask_array6[127]));
    EXPECT_EQ((mask{all, all, all, all}), std::to_array(mask_array6[128]));
}

TEST(AsTable, AnEmptyTableHasNoNumbers) {
    const as_tables none;
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(0u, find_as4(none.table4, 0xC0000201));
    EXPECT_EQ(0u, find6(none, {1, 2, 3, 4}));
}

TEST(AsTable, ANetworkHoldsItsAddressesAndNoOthers) {
    const as_tables tables = table4({{65001, 0xC0000280, 24}});
    EXPECT_FALSE(tables.empty());
    EXPECT_EQ(0xC0000200u, tables.table4[0].network);  // cut to its prefix
    EXPECT_EQ(65001u, find_as4(tables.table4, 0xC0000200));
    EXPECT_EQ(65001u, find_as4(tables.table4, 0xC00002FF));
    EXPECT_EQ(0u, find_as4(tables.table4, 0xC00001FF));
    EXPECT_EQ(0u, find_as4(tables.table4, 0xC0000300));
}

TEST(AsTable, ANetworkOfNoBitsHoldsEverything) {
    const as_tables tables = table4({{7, 0xC0000280, 0}});
    EXPECT_EQ(7u, find_as4(tables.table4, 0));
    EXPECT_EQ(7u, find_as4(tables.table4, 0xFFFFFFFF));
}

TEST(AsTable, AddressesAreUnsigned) {
    const as_tables tables =
        table4({{1, 0x01000000, 8}, {2, 0x7F000000, 8}, {3, 0x80000000, 8}, {4, 0xFF000000, 8}});
    EXPECT_EQ(1u, find_as4(tables.table4, 0x01020304));
    EXPECT_EQ(2u, find_as4(tables.table4, 0x7FFFFFFF));
    EXPECT_EQ(3u, find_as4(tables.table4, 0x80000000));
    EXPECT_EQ(4u, find_as4(tables.table4, 0xFFFFFFFF));
    EXPECT_EQ(0u, find_as4(tables.table4, 0x02000000));
}

TEST(AsTable, TheGreatestNetworkComesFirst) {
    const as_tables tables = table4({{1, 0x0A000000, 8}, {2, 0xC0000000, 8}, {3, 0x14000000, 8}});
    EXPECT_EQ(2u, tables.table4[0].asn);
    EXPECT_EQ(3u, tables.table4[1].asn);
    EXPECT_EQ(1u, tables.table4[2].asn);
}

// Sorted: 10.1.0.0/16, 10.0.0.0/8. The search looks at place 1 of 2 first: the /8.
TEST(AsTable, TheFirstNetworkThatTheSearchMeetsCounts) {
    const as_tables tables = table4({{16, 0x0A010000, 16}, {8, 0x0A000000, 8}});
    EXPECT_EQ(8u, find_as4(tables.table4, 0x0A010203));
    EXPECT_EQ(8u, find_as4(tables.table4, 0x0A020304));
}

// The search looks at place 1 of 3 first.
TEST(AsTable, WhatElseIsInTheTableDecidesWhichOfTwoCounts) {
    const as_tables below = table4({{16, 0x0A010000, 16}, {8, 0x0A000000, 8}, {1, 0x01000000, 8}});
    EXPECT_EQ(8u, find_as4(below.table4, 0x0A010203));
    const as_tables above = table4({{16, 0x0A010000, 16}, {8, 0x0A000000, 8}, {20, 0x14000000, 8}});
    EXPECT_EQ(16u, find_as4(above.table4, 0x0A010203));
}

// 10.2.3.4 lies after 10.1.0.0/16, so the search goes up, away from 10.0.0.0/8.
TEST(AsTable, ANetworkInsideAnotherMayHideItFromItsOtherAddresses) {
    const as_tables tables =
        table4({{16, 0x0A010000, 16}, {8, 0x0A000000, 8}, {20, 0x14000000, 8}});
    EXPECT_EQ(0u, find_as4(tables.table4, 0x0A020304));
    EXPECT_EQ(8u, find_as4(tables.table4, 0x0A000304));
}

TEST(AsTable, NetworksOfOneAddressKeepTheirOrder) {
    const as_tables tables = table4({{1, 0x0A000000, 8}, {2, 0x0A000000, 16}, {3, 0x0A000000, 24}});
    EXPECT_EQ(1u, tables.table4[0].asn);
    EXPECT_EQ(2u, tables.table4[1].asn);
    EXPECT_EQ(3u, tables.table4[2].asn);
    EXPECT_EQ(2u, find_as4(tables.table4, 0x0A000001));  // the middle one
}

TEST(AsTable, ManyNetworksOfOneAddressKeepTheirOrderToo) {
    as_tables tables;
    for (uint32_t n = 1; n <= 100; ++n) {
        tables.table4.push_back(make_as4_entry(n, (n % 2) << 24, 8));
        tables.table6.push_back(make_as6_entry(n, {n % 2, 0, 0, 0}, 32));
    }
    sort_as_tables(tables);
    for (uint32_t i = 0; i < 100; ++i) {
        const uint32_t expected = i < 50 ? 2 * i + 1 : 2 * (i - 50) + 2;  // odd ones first
        EXPECT_EQ(expected, tables.table4[i].asn);
        EXPECT_EQ(expected, tables.table6[i].asn);
    }
}

// Networks of all lengths side by side, with gaps. What the documentation promises of such tables.
TEST(AsTable, NetworksThatLieApartAreFoundByAllTheirAddresses) {
    as_tables tables;
    for (uint32_t n = 0; n < 256; ++n)
        tables.table4.push_back(
            make_as4_entry(n + 1, n << 24 | n << 16, static_cast<uint16_t>(8 + n % 25)));
    sort_as_tables(tables);
    for (uint32_t n = 0; n < 256; ++n) {
        const uint32_t own_mask = mask_array4[8 + n % 25];
        const uint32_t first = (n << 24 | n << 16) & own_mask;
        const uint32_t last = first | ~own_mask;
        for (const uint32_t address : {first, first + (last - first) / 2, last})
            EXPECT_EQ(n + 1, find_as4(tables.table4, address));
        for (const uint32_t address : {first - 1, last + 1}) {
            const bool is_in_gap = address >> 24 == n;
            const uint32_t found = find_as4(tables.table4, address);
            EXPECT_TRUE(is_in_gap ? found == 0 : found != n + 1) << address;
        }
    }
}

// 2001:db8::/32: the prefix covers the last 32 bits, which are 0.
TEST(AsTable, AnIpv6PrefixCountsFromTheEndOfTheAddress) {
    const as_tables tables = table6({{65002, {0, 0, 0, 0x20010DB8}, 32}});
    EXPECT_EQ(0u, tables.table6[0].network[3]);
    EXPECT_EQ(65002u, find6(tables, {0, 5, 6, 7}));
    EXPECT_EQ(65002u, find6(tables, {0, 0, 0, 0x20010DB8}));
    EXPECT_EQ(0u, find6(tables, {1, 0, 0, 0x20010DB8}));
}

TEST(AsTable, TheLastWordThatAnIpv6PrefixReachesGivesItsTopBits) {
    const as_tables tables = table6({{9, {1, 0xABCD1234, 3, 4}, 48}});
    EXPECT_EQ(0xABCD0000u, tables.table6[0].network[1]);
    EXPECT_EQ(9u, find6(tables, {1, 0xABCDFFFF, 77, 88}));
    EXPECT_EQ(0u, find6(tables, {1, 0xABCCFFFF, 77, 88}));
    EXPECT_EQ(0u, find6(tables, {2, 0xABCDFFFF, 77, 88}));
}

TEST(AsTable, Ipv6AddressesCompareFromTheMostSignificantWord) {
    const as_tables tables = table6({{1, {9, 9, 9, 1}, 128},
                                     {2, {1, 1, 1, 9}, 128},
                                     {3, {9, 9, 2, 9}, 128},
                                     {4, {9, 8, 1, 9}, 128}});
    constexpr uint32_t expected[] = {3, 4, 2, 1};
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(expected[i], tables.table6[i].asn);
    EXPECT_EQ(1u, find6(tables, {9, 9, 9, 1}));
    EXPECT_EQ(2u, find6(tables, {1, 1, 1, 9}));
    EXPECT_EQ(3u, find6(tables, {9, 9, 2, 9}));
    EXPECT_EQ(4u, find6(tables, {9, 8, 1, 9}));
    EXPECT_EQ(0u, find6(tables, {9, 8, 1, 8}));
}

TEST(AsTable, Ipv6WordsAreUnsigned) {
    const as_tables tables =
        table6({{1, {0, 0, 0, 0x7FFFFFFF}, 128}, {2, {0, 0, 0, 0x80000000}, 128}});
    EXPECT_EQ(2u, tables.table6[0].asn);
    EXPECT_EQ(1u, find6(tables, {0, 0, 0, 0x7FFFFFFF}));
    EXPECT_EQ(2u, find6(tables, {0, 0, 0, 0x80000000}));
}

}  // namespace
