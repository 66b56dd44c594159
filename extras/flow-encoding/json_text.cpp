// Longer values of JSON as text; see json_text.h.
#include "json_text.h"

namespace flow_encoding {
namespace {

constexpr uint64_t ns_per_second = 1'000'000'000;
constexpr uint64_t seconds_per_day = 86'400;
constexpr char lower_digits[] = "0123456789abcdef";

// ---- Addresses ----

char* put_octet(char* to, uint8_t octet) {
    return put_short_number(to, octet);
}

char* put_dotted(char* to, const uint8_t bytes[4]) {
    for (size_t n = 0; n < 3; ++n)
        to = put_character(put_octet(to, bytes[n]), '.');
    return put_octet(to, bytes[3]);
}

struct zero_run {
    size_t first;
    size_t length;
};

// The longest run of at least two groups that are 0, the first of equal ones.
zero_run longest_run(const uint16_t groups[8]) {
    zero_run longest{8, 0};
    for (size_t at = 0; at < 8; ++at) {
        size_t end = at;
        while (end < 8 && groups[end] == 0)
            ++end;
        if (end - at > longest.length)
            longest = {at, end - at};
        if (end > at)
            at = end;
    }
    return longest.length >= 2 ? longest : zero_run{8, 0};
}

char* put_group(char* to, uint16_t group) {
    for (int shift = group >= 0x1000  ? 12
                     : group >= 0x100 ? 8
                     : group >= 0x10  ? 4
                                      : 0;
         shift >= 0; shift -= 4)
        to = put_character(to, lower_digits[group >> shift & 0xF]);
    return to;
}

// ::ffff:0:0/96
bool is_mapped(const uint16_t groups[8]) {
    for (size_t n = 0; n < 5; ++n)
        if (groups[n] != 0)
            return false;
    return groups[5] == 0xFFFF;
}

char* put_groups(char* to, const uint16_t groups[8]) {
    const zero_run run = longest_run(groups);
    for (size_t n = 0; n < 8;) {
        if (n == run.first) {
            to = put_character(put_character(to, ':'), ':');
            n += run.length;
            continue;
        }
        if (n > 0 && n != run.first + run.length)
            to = put_character(to, ':');
        to = put_group(to, groups[n++]);
    }
    return to;
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
    to = is_mapped(groups) ? put_dotted(put_bytes(to, "::ffff:"), bytes + 12)
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
