#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kestrelexp/service.h"

namespace {

std::string hexa(const uint8_t* bytes, unsigned n) {
    char* text = str2hexa(bytes, n);
    const std::string result = text;
    std::free(text);
    return result;
}

TEST(Text, SetBitsOfAWordAreCounted) {
    EXPECT_EQ(0u, ones32(0));
    EXPECT_EQ(1u, ones32(0x80000000));
    EXPECT_EQ(16u, ones32(0x0F0F0F0F));
    EXPECT_EQ(32u, ones32(0xFFFFFFFF));
}

TEST(Text, SetBitsOfBytesAreCounted) {
    const uint8_t bytes[] = {0xFF, 0x01, 0x80};
    EXPECT_EQ(0, count_ones(bytes, 0));
    EXPECT_EQ(9, count_ones(bytes, 2));
    EXPECT_EQ(10, count_ones(bytes, 3));
}

TEST(Text, BytesBecomeUpperCaseHexadecimal) {
    const uint8_t bytes[] = {0x00, 0xAB, 0x5f};
    EXPECT_EQ("00AB", hexa(bytes, 2));
    EXPECT_EQ("00AB5F", hexa(bytes, 3));
    EXPECT_EQ("", hexa(bytes, 0));
}

TEST(Text, OnlyDigitsMakeAPositiveNumber) {
    EXPECT_EQ(7, test_positive_number("007"));
    EXPECT_EQ(2147483647, test_positive_number("2147483647"));
    EXPECT_EQ(-1, test_positive_number("7a"));
    EXPECT_EQ(-1, test_positive_number("-5"));
    EXPECT_EQ(-1, test_positive_number("+5"));
    EXPECT_EQ(-1, test_positive_number(" 5"));
    EXPECT_EQ(0, test_positive_number(""));
}

TEST(Text, TheStandInReturnsZero) {
    EXPECT_EQ(0, return_zero_func());
}

}  // namespace
