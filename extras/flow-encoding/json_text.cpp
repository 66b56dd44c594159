// Longer values of JSON as text; see json_text.h.
#include "json_text.h"

#include <bit>

namespace flow_encoding {
namespace {

constexpr uint64_t ns_per_second = 1'000'000'000;
constexpr uint64_t seconds_per_day = 86'400;
constexpr char lower_digits[] = "0123456789abcdef";

// ---- Addresses ----

// "0." to "255.", a number and the point after it.
struct dotted_octets {
    char text[256][4];
    uint8_t length[256];

    constexpr dotted_octets() : text{}, length{} {
        for (unsigned octet = 0; octet < 256; ++octet) {
            char* to = text[octet];
            if (octet >= 100)
                *to++ = static_cast<char>('0' + octet / 100);
            if (octet >= 10)
                *to++ = static_cast<char>('0' + octet / 10 % 10);
            *to++ = static_cast<char>('0' + octet % 10);
            *to++ = '.';
            length[octet] = static_cast<uint8_t>(to - text[octet]);
        }
    }
};
constexpr dotted_octets octets;

char* put_dotted(char* to, const uint8_t bytes[4]) {
    for (size_t n = 0; n < 4; ++n) {
        std::memcpy(to, octets.text[bytes[n]], 4);
        to += octets.length[bytes[n]];
    }
    return to - 1;  // the last point
}

struct zero_run {
    uint8_t first;
    uint8_t length;  // 0: there is none
};

// For each set of groups that are 0, the first of them in the lowest bit: the longest run of at
// least two, the first of equal ones.
struct zero_runs {
    zero_run of[256];

    constexpr zero_runs() : of{} {
        for (unsigned set = 0; set < 256; ++set)
            of[set] = longest(set);
    }

    static constexpr zero_run longest(unsigned set) {
        for (unsigned length = 8; length >= 2; --length)
            for (unsigned first = 0; first + length <= 8; ++first)
                if ((set >> first & ((1U << length) - 1)) == (1U << length) - 1)
                    return {static_cast<uint8_t>(first), static_cast<uint8_t>(length)};
        return {8, 0};
    }
};
constexpr zero_runs runs;

zero_run longest_run(const uint16_t groups[8]) {
    unsigned zeros = 0;
    for (unsigned n = 0; n < 8; ++n)
        zeros |= (groups[n] == 0 ? 1U : 0U) << n;
    return runs.of[zeros];
}

// "00" to "ff".
struct hex_pairs {
    char text[256][2];

    constexpr hex_pairs() : text{} {
        for (unsigned byte = 0; byte < 256; ++byte) {
            text[byte][0] = lower_digits[byte >> 4];
            text[byte][1] = lower_digits[byte & 0xF];
        }
    }
};
constexpr hex_pairs hex;

// A group and the colon after it, without a branch for the number of digits.
char* put_group(char* to, uint16_t group) {
    char digits[8] = {0, 0, 0, 0, ':'};
    std::memcpy(digits, hex.text[group >> 8], 2);
    std::memcpy(digits + 2, hex.text[group & 0xFF], 2);
    uint64_t text;
    std::memcpy(&text, digits, sizeof text);
    const auto leading_zeros = static_cast<unsigned>(std::countl_zero<uint16_t>(group | 1)) / 4;
    text >>= 8 * leading_zeros;
    std::memcpy(to, &text, sizeof text);
    return to + 5 - leading_zeros;
}

// ::ffff:0:0/96
bool is_mapped(const uint8_t bytes[16]) {
    static constexpr uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(bytes, prefix, sizeof prefix) == 0;
}

char* put_groups(char* to, const uint16_t groups[8]) {
    const zero_run run = longest_run(groups);
    for (size_t n = 0; n < run.first; ++n)
        to = put_group(to, groups[n]);
    if (run.first == 0)
        to = put_character(to, ':');
    if (run.length > 0)
        to = put_character(to, ':');
    const size_t rest = size_t{run.first} + run.length;
    for (size_t n = rest; n < 8; ++n)
        to = put_group(to, groups[n]);
    return run.length > 0 && rest == 8 ? to : to - 1;  // the last colon
}

// ---- Times ----

struct civil_day {
    uint32_t year;
    uint32_t month;
    uint32_t day;
};

// Of the Gregorian calendar. Counts from 0000-03-01, so that the leap day ends a year.
civil_day day_of(uint64_t days_since_1970) {
    const uint64_t days = days_since_1970 + 719'468;
    const uint64_t era = days / 146'097;  // of 400 years
    const uint64_t of_era = days % 146'097;
    const uint64_t year_of_era =
        (of_era - of_era / 1'460 + of_era / 36'524 - of_era / 146'096) / 365;
    const uint64_t of_year = of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const uint64_t from_march = (5 * of_year + 2) / 153;
    const uint64_t day = of_year - (153 * from_march + 2) / 5 + 1;
    const uint64_t month = from_march < 10 ? from_march + 3 : from_march - 9;
    const uint64_t year = era * 400 + year_of_era + (month <= 2 ? 1 : 0);
    return {static_cast<uint32_t>(year), static_cast<uint32_t>(month), static_cast<uint32_t>(day)};
}

// ---- Strings ----

constexpr std::string_view replacement = "\xEF\xBF\xBD";  // U+FFFD

bool is_continuation(char byte) {
    return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

// Bytes of the character of UTF-8 that text begins with; 0: there is none.
size_t character_length(std::string_view text) {
    const auto first = static_cast<uint8_t>(text[0]);
    if (first < 0x80)
        return 1;
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length)
        return 0;
    for (size_t n = 1; n < length; ++n)
        if (!is_continuation(text[n]))
            return 0;
    // No character in more bytes than it needs, no half of a pair, none after the last one.
    const auto second = static_cast<uint8_t>(text[1]);
    const bool is_bad = (first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0) ||
                        (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90);
    return is_bad ? 0 : length;
}

char* put_bytes(char* to, std::string_view bytes) {
    std::memcpy(to, bytes.data(), bytes.size());
    return to + bytes.size();
}

char* put_ascii(char* to, char character) {
    if (character == '"' || character == '\\')
        return put_character(put_character(to, '\\'), character);
    const auto code = static_cast<uint8_t>(character);
    if (code >= 0x20)
        return put_character(to, character);
    to = put_bytes(to, "\\u00");
    return put_character(put_character(to, lower_digits[code >> 4]), lower_digits[code & 0xF]);
}

}  // namespace

char* put_ipv4(char* to, const uint8_t bytes[4]) {
    return put_character(put_dotted(put_character(to, '"'), bytes), '"');
}

char* put_ipv6(char* to, const uint8_t bytes[16]) {
    uint16_t groups[8];
    for (size_t n = 0; n < 8; ++n)
        groups[n] = static_cast<uint16_t>(bytes[2 * n] << 8 | bytes[2 * n + 1]);
    to = put_character(to, '"');
    to = is_mapped(bytes) ? put_dotted(put_bytes(to, "::ffff:"), bytes + 12)
                          : put_groups(to, groups);
    return put_character(to, '"');
}

char* put_mac(char* to, const uint8_t bytes[6], const char* digits, char separator) {
    to = put_character(to, '"');
    for (size_t n = 0; n < 6; ++n) {
        to = put_character(to, digits[bytes[n] >> 4]);
        to = put_character(to, digits[bytes[n] & 0xF]);
        to = put_character(to, n < 5 ? separator : '"');
    }
    return to;
}

char* put_time(char* to, uint64_t time_ns) {
    const uint64_t seconds = time_ns / ns_per_second;
    const auto ns = static_cast<uint32_t>(time_ns % ns_per_second);
    const auto of_day = static_cast<uint32_t>(seconds % seconds_per_day);
    const civil_day date = day_of(seconds / seconds_per_day);
    to = put_four(put_character(to, '"'), date.year);
    to = put_pair(put_character(to, '-'), date.month);
    to = put_pair(put_character(to, '-'), date.day);
    to = put_pair(put_character(to, 'T'), of_day / 3600);
    to = put_pair(put_character(to, ':'), of_day / 60 % 60);
    to = put_pair(put_character(to, ':'), of_day % 60);
    to = put_character(to, '.');
    to = put_character(to, static_cast<char>('0' + ns / 100'000'000));
    to = put_eight(to, ns % 100'000'000);
    return put_character(put_character(to, 'Z'), '"');
}

char* put_text(char* to, std::string_view text) {
    to = put_character(to, '"');
    while (!text.empty()) {
        const size_t length = character_length(text);
        to = length == 1   ? put_ascii(to, text[0])
             : length == 0 ? put_bytes(to, replacement)
                           : put_bytes(to, text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return put_character(to, '"');
}

}  // namespace flow_encoding
