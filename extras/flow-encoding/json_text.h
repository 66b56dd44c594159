// The values of JSON as text: numbers, addresses, times, strings. Each function writes at to and
// returns the place after what it wrote; up to text_margin bytes after that may be written as well,
// and the caller sees to the room. Runs several times for each record, so what is short is inline.
// No state; any thread.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace flow_encoding {

// Numbers are stored in whole words.
inline constexpr size_t text_margin = 8;

// Bytes that a value takes at most, its quotes included.
inline constexpr size_t number_room = 20;
inline constexpr size_t digits_room = number_room + 2;
inline constexpr size_t address_room = 2 + 45;  // eight groups, the last two as an IPv4 address
inline constexpr size_t mac_room = 2 + 17;
inline constexpr size_t time_room = 2 + 30;
// A byte of a text takes six at most: \u0001.
constexpr size_t text_room(size_t length) {
    return 2 + 6 * length;
}

// "00" to "99".
struct digit_pairs {
    char text[200];

    constexpr digit_pairs() : text{} {
        for (size_t n = 0; n < 100; ++n) {
            text[2 * n] = static_cast<char>('0' + n / 10);
            text[2 * n + 1] = static_cast<char>('0' + n % 10);
        }
    }
};
inline constexpr digit_pairs pairs;

// value: 0 to 99.
inline char* put_pair(char* to, uint32_t value) {
    std::memcpy(to, &pairs.text[size_t{2} * value], 2);
    return to + 2;
}

// value: up to 9,999; four digits.
inline char* put_four(char* to, uint32_t value) {
    return put_pair(put_pair(to, value / 100), value % 100);
}

// The eight digits of a number up to 99,999,999, a byte each, 0 to 9, the first in the lowest. They
// are parted side by side in one word: into fours, pairs and single ones. The factors stand for a
// division by 100 and by 10, exact for what a part can be.
inline uint64_t eight_digits(uint32_t value) {
    uint64_t parts = value / 10'000 | uint64_t{value % 10'000} << 32;
    uint64_t high = (parts * 10'486 >> 20) & 0x0000'007F'0000'007F;
    parts = high | (parts - high * 100) << 16;
    high = (parts * 103 >> 10) & 0x000F'000F'000F'000F;
    return high | (parts - high * 10) << 8;
}

constexpr uint64_t eight_zeros = 0x3030'3030'3030'3030;  // as text

// value: up to 99,999,999; eight digits.
inline char* put_eight(char* to, uint32_t value) {
    const uint64_t text = eight_digits(value) | eight_zeros;
    std::memcpy(to, &text, sizeof text);
    return to + sizeof text;
}

// value: below 100,000,000. Without a branch for the number of digits, which nobody foresees.
inline char* put_short_number(char* to, uint32_t value) {
    const uint64_t digits = eight_digits(value);
    constexpr uint64_t last = uint64_t{1} << 56;  // stays, also of 0
    const auto leading_zeros = static_cast<unsigned>(std::countr_zero(digits | last)) / 8;
    const uint64_t text = (digits | eight_zeros) >> 8 * leading_zeros;
    std::memcpy(to, &text, sizeof text);
    return to + sizeof text - leading_zeros;
}

inline char* put_number(char* to, uint64_t value) {
    constexpr uint64_t eight = 100'000'000;
    if (value < eight)
        return put_short_number(to, static_cast<uint32_t>(value));
    const uint64_t high = value / eight;
    to = high < eight ? put_short_number(to, static_cast<uint32_t>(high))
                      : put_eight(put_short_number(to, static_cast<uint32_t>(high / eight)),
                                  static_cast<uint32_t>(high % eight));
    return put_eight(to, static_cast<uint32_t>(value % eight));
}

inline char* put_character(char* to, char character) {
    *to = character;
    return to + 1;
}

inline char* put_digits(char* to, uint64_t value) {
    return put_character(put_number(put_character(to, '"'), value), '"');
}

// bytes: in network order. In quotes.
char* put_ipv4(char* to, const uint8_t bytes[4]);
// By RFC 5952, in quotes.
char* put_ipv6(char* to, const uint8_t bytes[16]);

// In quotes. digits: sixteen, and what stands between two bytes.
char* put_mac(char* to, const uint8_t bytes[6], const char* digits, char separator);

// UTC, by RFC 3339, in quotes.
char* put_time(char* to, uint64_t time_ns);

// The text as a JSON string. What is not UTF-8 becomes U+FFFD, each byte of it; what JSON keeps for
// itself, and control characters, are escaped.
char* put_text(char* to, std::string_view text);

}  // namespace flow_encoding
