// Values as text, with literal expectations.
#include "json_text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

namespace {

using namespace flow_encoding;

// What a function writes.
template <typename Put>
std::string written(const Put& put) {
    std::array<char, 256> room;
    room.fill('?');
    return {room.data(), static_cast<size_t>(put(room.data()) - room.data())};
}

std::string number(uint64_t value) {
    return written([&](char* to) { return put_number(to, value); });
}

TEST(JsonText, NumbersOfEveryLengthAreDecimal) {
    uint64_t value = 0;
    std::string expected;
    for (int digit = 1; digit <= 19; ++digit) {
        value = value * 10 + static_cast<uint64_t>(digit % 10);
        expected += std::to_string(digit % 10);
        EXPECT_EQ(number(value), expected);
    }
}

TEST(JsonText, NumbersKeepTheirZeros) {
    EXPECT_EQ(number(0), "0");
    EXPECT_EQ(number(10), "10");
    EXPECT_EQ(number(100), "100");
    EXPECT_EQ(number(1000), "1000");
    EXPECT_EQ(number(10'000), "10000");
    EXPECT_EQ(number(100'000), "100000");
    EXPECT_EQ(number(1'000'000), "1000000");
    EXPECT_EQ(number(10'000'000), "10000000");
    EXPECT_EQ(number(99'999'999), "99999999");
    EXPECT_EQ(number(100'000'000), "100000000");
    EXPECT_EQ(number(9'999'999'999'999'999), "9999999999999999");
    EXPECT_EQ(number(10'000'000'000'000'000), "10000000000000000");
    EXPECT_EQ(number(9'007'199'254'740'993), "9007199254740993");  // 2^53 + 1
    EXPECT_EQ(number(UINT64_MAX), "18446744073709551615");
}

// Each four of eight digits, which are worked out apart, takes all of its values.
TEST(JsonText, EightDigitsAreAlwaysEight) {
    for (uint32_t four = 0; four < 10'000; ++four) {
        std::string digits = std::to_string(four);
        digits.insert(0, 4 - digits.size(), '0');
        const auto eight = [](uint32_t value) {
            return written([&](char* to) { return put_eight(to, value); });
        };
        ASSERT_EQ(eight(four), "0000" + digits);
        ASSERT_EQ(eight(four * 10'000 + four), digits + digits);
    }
}

std::string ipv6(std::array<uint8_t, 16> bytes) {
    return written([&](char* to) { return put_ipv6(to, bytes.data()); });
}

TEST(JsonText, AnIpv4AddressHasDots) {
    const uint8_t bytes[] = {192, 0, 2, 100};
    EXPECT_EQ(written([&](char* to) { return put_ipv4(to, bytes); }), "\"192.0.2.100\"");
}

// RFC 5952 section 4.
TEST(JsonText, AnIpv6AddressIsAsShortAsItCanBe) {
    EXPECT_EQ(ipv6({}), "\"::\"");
    EXPECT_EQ(ipv6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), "\"::1\"");
    EXPECT_EQ(ipv6({0x20, 1, 0xD, 0xB8}), "\"2001:db8::\"");
    EXPECT_EQ(ipv6({0x20, 1, 0xD, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), "\"2001:db8::1\"");
    // One group of zeros stays, the first of two equal runs goes.
    EXPECT_EQ(ipv6({0x20, 1, 0xD, 0xB8, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1}),
              "\"2001:db8:0:1:1:1:1:1\"");
    EXPECT_EQ(ipv6({0x20, 1, 0xD, 0xB8, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1}),
              "\"2001:db8::1:0:0:1\"");
    EXPECT_EQ(ipv6({0x20, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}), "\"2001:0:0:1::1\"");
    EXPECT_EQ(
        ipv6({0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10, 0xF, 0xED, 0, 0xBA, 0, 9, 1, 0x10}),
        "\"fedc:ba98:7654:3210:fed:ba:9:110\"");
    EXPECT_EQ(ipv6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 192, 0, 2, 1}),
              "\"::ffff:192.0.2.1\"");
}

// Every set of groups that are zero, with groups of one to four digits, beside the C library's
// text.
TEST(JsonText, AddressesAreThoseOfTheCLibrary) {
    for (unsigned set = 0; set < 256; ++set)
        for (const unsigned group : {0xFU, 0x10U, 0xABCU, 0x1000U}) {
            std::array<uint8_t, 16> bytes{};
            for (size_t n = 0; n < 8; ++n)
                if ((set >> n & 1) != 0) {
                    bytes[2 * n] = static_cast<uint8_t>(group >> 8);
                    bytes[2 * n + 1] = static_cast<uint8_t>(group & 0xFF);
                }
            char expected[INET6_ADDRSTRLEN];
            inet_ntop(AF_INET6, bytes.data(), expected, sizeof expected);
            // Only the library shows two last groups after zeros as an IPv4 address.
            if (std::strchr(expected, '.') == nullptr) {
                ASSERT_EQ(ipv6(bytes), '"' + std::string(expected) + '"');
            }
        }
}

TEST(JsonText, OctetsHaveOneToThreeDigits) {
    for (unsigned octet = 0; octet < 256; ++octet) {
        const auto one = static_cast<uint8_t>(octet);
        const uint8_t bytes[] = {one, 0, one, one};
        const std::string text = std::to_string(octet);
        ASSERT_EQ(written([&](char* to) { return put_ipv4(to, bytes); }),
                  '"' + text + ".0." + text + '.' + text + '"');
    }
}

TEST(JsonText, AMacAddressHasWhatTheStyleWants) {
    const uint8_t bytes[] = {0x02, 0x00, 0x5E, 0x10, 0x00, 0xFF};
    EXPECT_EQ(written([&](char* to) { return put_mac(to, bytes, "0123456789abcdef", ':'); }),
              "\"02:00:5e:10:00:ff\"");
    EXPECT_EQ(written([&](char* to) { return put_mac(to, bytes, "0123456789ABCDEF", '-'); }),
              "\"02-00-5E-10-00-FF\"");
}

std::string moment(uint64_t seconds, uint64_t ns = 0) {
    return written([&](char* to) { return put_time(to, seconds * 1'000'000'000 + ns); });
}

// From date -u -d @SECONDS.
TEST(JsonText, TimesAreUtcWithTheirZone) {
    EXPECT_EQ(moment(0), "\"1970-01-01T00:00:00.000000000Z\"");
    EXPECT_EQ(moment(1'000'000'000, 123'456'789), "\"2001-09-09T01:46:40.123456789Z\"");
    EXPECT_EQ(moment(951'782'400), "\"2000-02-29T00:00:00.000000000Z\"");
    EXPECT_EQ(moment(1'709'251'199, 999'999'999), "\"2024-02-29T23:59:59.999999999Z\"");
    EXPECT_EQ(moment(1'709'251'200, 1), "\"2024-03-01T00:00:00.000000001Z\"");
    EXPECT_EQ(moment(1'767'225'599), "\"2025-12-31T23:59:59.000000000Z\"");
    EXPECT_EQ(moment(4'102'444'800), "\"2100-01-01T00:00:00.000000000Z\"");
    EXPECT_EQ(moment(4'107'542'400), "\"2100-03-01T00:00:00.000000000Z\"");
    EXPECT_EQ(written([](char* to) { return put_time(to, UINT64_MAX); }),
              "\"2554-07-21T23:34:33.709551615Z\"");
}

std::string text(std::string_view bytes) {
    std::string room(text_room(bytes.size()), '?');
    char* const end = put_text(room.data(), bytes);
    EXPECT_LE(end, room.data() + room.size());
    room.resize(static_cast<size_t>(end - room.data()));
    return room;
}

TEST(JsonText, WhatJsonKeepsForItselfIsEscaped) {
    EXPECT_EQ(text("plain"), R"("plain")");
    EXPECT_EQ(text(R"(a"b\c)"), R"("a\"b\\c")");
    EXPECT_EQ(text({"\0\n\x1F\x7F", 4}), "\"\\u0000\\u000a\\u001f\x7F\"");
    EXPECT_EQ(text(""), R"("")");
}

TEST(JsonText, CharactersOfUtf8Stay) {
    EXPECT_EQ(text("\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x90\xA6"),
              "\"\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x90\xA6\"");
    EXPECT_EQ(text("\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF"),
              "\"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF\"");
}

// U+FFFD for each byte that is none.
TEST(JsonText, WhatIsNotUtf8IsReplaced) {
    const std::string bad = "\xEF\xBF\xBD";
    const auto replaced = [&](size_t count) {
        std::string expected = "\"";
        while (count-- > 0)
            expected += bad;
        return expected + '"';
    };
    EXPECT_EQ(text("\xFF"), replaced(1));
    EXPECT_EQ(text("\x80"), replaced(1));
    EXPECT_EQ(text("\xC3"), replaced(1));              // cut
    EXPECT_EQ(text("\xE2\x82"), replaced(2));          // cut
    EXPECT_EQ(text("\xC0\xAF"), replaced(2));          // longer than it needs to be
    EXPECT_EQ(text("\xE0\x80\xAF"), replaced(3));      // the same
    EXPECT_EQ(text("\xF0\x80\x80\xAF"), replaced(4));  // the same
    EXPECT_EQ(text("\xED\xA0\x80"), replaced(3));      // half of a pair
    EXPECT_EQ(text("\xF4\x90\x80\x80"), replaced(4));  // after the last character
    EXPECT_EQ(text("\xC3("), "\"" + bad + "(\"");
}

}  // namespace
