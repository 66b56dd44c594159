#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kestrelexp/getter.h"

namespace {

using bytes = std::vector<uint8_t>;

// Source bytes 0x10, 0x11, ...; the destination keeps 0xEE where nothing is written.
bytes universal(int32_t source_length, int32_t destination_length, uint32_t network_order,
                size_t shown) {
    uint8_t source[40];
    for (uint8_t i = 0; i < sizeof source; ++i)
        source[i] = static_cast<uint8_t>(0x0D + i);
    bytes destination(40, 0xEE);
    record_universal_get(destination.data(), source, 3, source_length, destination_length,
                         network_order);
    destination.resize(shown);
    return destination;
}

TEST(UniversalGet, EqualLengthsAreSwappedInNetworkOrderOnly) {
    EXPECT_EQ((bytes{0x10, 0xEE}), universal(1, 1, 1, 2));
    EXPECT_EQ((bytes{0x11, 0x10, 0xEE}), universal(2, 2, 1, 3));
    EXPECT_EQ((bytes{0x10, 0x11, 0xEE}), universal(2, 2, 0, 3));
    EXPECT_EQ((bytes{0x13, 0x12, 0x11, 0x10, 0xEE}), universal(4, 4, 1, 5));
    EXPECT_EQ((bytes{0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 0x10, 0xEE}), universal(8, 8, 1, 9));
    EXPECT_EQ((bytes{0x1F, 0x1E, 0x1D, 0x1C, 0x1B, 0x1A, 0x19, 0x18, 0x17, 0x16, 0x15, 0x14, 0x13,
                     0x12, 0x11, 0x10, 0xEE}),
              universal(16, 16, 1, 17));
    EXPECT_EQ((bytes{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C,
                     0x1D, 0x1E, 0x1F, 0xEE}),
              universal(16, 16, 0, 17));
}

TEST(UniversalGet, WiderNetworkFieldsAreZeroedInFront) {
    EXPECT_EQ((bytes{0, 0, 0x11, 0x10, 0xEE}), universal(2, 4, 1, 5));
    EXPECT_EQ((bytes{0, 0, 0, 0, 0, 0, 0, 0x10, 0xEE}), universal(1, 8, 1, 9));
}

TEST(UniversalGet, WiderHostFieldsAreZeroedBehind) {
    EXPECT_EQ((bytes{0x10, 0x11, 0, 0, 0xEE}), universal(2, 4, 0, 5));
}

TEST(UniversalGet, NarrowerFieldsKeepTheLowOrderBytes) {
    EXPECT_EQ((bytes{0x13, 0x12, 0x11, 0x10, 0xEE}), universal(8, 4, 1, 5));
    EXPECT_EQ((bytes{0x10, 0x11, 0x12, 0x13, 0xEE}), universal(8, 4, 0, 5));
    EXPECT_EQ((bytes{0x10, 0xEE}), universal(4, 1, 1, 2));
    EXPECT_EQ((bytes{0x13, 0x12, 0x11, 0x10, 0xEE}), universal(6, 4, 1, 5));
}

TEST(UniversalGet, SixBytesStandUnchangedBehindTheZerosOfAWiderField) {
    EXPECT_EQ((bytes{0, 0, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0xEE}), universal(6, 8, 1, 9));
    EXPECT_EQ((bytes{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0, 0, 0xEE}), universal(6, 8, 0, 9));
}

TEST(UniversalGet, OddLengthsAreCopiedUnswapped) {
    EXPECT_EQ((bytes{0x10, 0x11, 0x12, 0xEE}), universal(3, 3, 1, 4));
    EXPECT_EQ((bytes{0, 0x10, 0x11, 0x12, 0xEE}), universal(3, 4, 1, 5));
    bytes longest = universal(18, 18, 1, 19);
    EXPECT_EQ(0x10, longest[0]);
    EXPECT_EQ(0x21, longest[17]);
    EXPECT_EQ(0xEE, longest[18]);
}

TEST(UniversalGet, FieldsShortenedToAnOddLengthAreCopiedWhole) {
    EXPECT_EQ((bytes{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0xEE}), universal(6, 3, 1, 7));
    EXPECT_EQ((bytes{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0xEE}), universal(8, 5, 1, 9));
}

TEST(UniversalGet, EmptyFieldsTakeNothing) {
    EXPECT_EQ((bytes{0xEE}), universal(4, 0, 1, 1));
}

// The rule as it reads, one byte at a time.
bytes by_the_rule(size_t source_length, size_t destination_length, bool network_order) {
    bytes value;
    for (size_t i = 0; i < source_length; ++i)
        value.push_back(static_cast<uint8_t>(0x10 + i));
    const size_t length = std::min(source_length, destination_length);
    const bool number = length == 1 || length == 2 || length == 4 || length == 8 || length == 16;
    if (number || length == 0)
        value.resize(length);
    if (number && network_order)
        std::reverse(value.begin(), value.end());
    if (destination_length > source_length)
        value.insert(network_order ? value.begin() : value.end(),
                     destination_length - source_length, 0);
    value.resize(40, 0xEE);
    return value;
}

TEST(UniversalGet, EveryPairOfLengthsFollowsTheRule) {
    for (int32_t from = 1; from <= 20; ++from)
        for (int32_t to = 0; to <= 20; ++to)
            for (const uint32_t order : {0u, 1u})
                EXPECT_EQ(by_the_rule(static_cast<size_t>(from), static_cast<size_t>(to), order),
                          universal(from, to, order, 40))
                    << from << " to " << to << " order " << order;
}

}  // namespace
