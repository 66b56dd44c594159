// Reads "id[ENTERPRISE.]NUMBER/LENGTH", and sends numbers and labels at widths that machines have
// no numbers of. See the header.
#include "export/numbered_element.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <limits>

#include "base/log.h"
#include "base/memory.h"
#include "record/field_rows.h"

namespace kestrel {
namespace {

constexpr std::string_view prefix = "id";

// Digits and nothing else. What is beyond 64 bits is their largest number: no range has that.
bool read_decimal(std::string_view digits, uint64_t& number) {
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(),
                                       [](char digit) { return digit >= '0' && digit <= '9'; }))
        return false;
    const auto [end, fault] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (fault != std::errc())
        number = std::numeric_limits<uint64_t>::max();
    return true;
}

struct bounded_number {
    std::string_view digits;
    const char* meaning;
    uint64_t last;  // the first is 1
};

uint64_t read_bounded(const bounded_number& row, const char* item) {
    uint64_t number = 0;
    if (!read_decimal(row.digits, number))
        die(exit_config, "Field: %s has invalid format", item);
    if (number < 1 || number > row.last)
        die(exit_config, "Field: %s has wrong %s, not 1 to %lu", item, row.meaning, row.last);
    return number;
}

// The element lives for the whole run, and so does its name.
const template_element* make_element(std::string_view name, uint64_t number, uint64_t length) {
    char* text = static_cast<char*>(malloc_wrapper(name.size() + 1, 1));
    std::memcpy(text, name.data(), name.size());
    return make_lifelong<template_element>(text, static_cast<uint16_t>(number),
                                           static_cast<uint16_t>(length));
}

// ---- Values ----

// A label leaves a record least significant byte first, for templates that have always got it so.
bool is_label(const getter& value) {
    return std::any_of(std::begin(field_rows), std::end(field_rows), [&](const field_row& row) {
        return row.get == value.get && row.value.block == record_block::mpls;
    });
}

// Whether the accessor itself cannot cut the number to that width.
bool is_cut_oddly(uint32_t value_length, uint32_t length) {
    return value_length <= sizeof(uint64_t) && std::has_single_bit(value_length) &&
           length < value_length && !std::has_single_bit(length);
}

// context: the table's entry, here and below.
int is_valid(void* context, const flow_record* record) {
    const auto* value = static_cast<const getter*>(context);
    return value->valid(value->context, record);
}

void get_any_width(void* context, const flow_record* record, void* destination, uint32_t length,
                   uint32_t network_order, const getter*) {
    const auto* value = static_cast<const getter*>(context);
    uint8_t number[sizeof(uint64_t) + value_margin] = {};  // least significant byte first
    value->get(value->context, record, number, value->length, 0, value);
    auto* to = static_cast<uint8_t*>(destination);
    for (uint32_t place = 0; place < length; ++place) {
        const uint32_t from = network_order != 0 ? length - 1 - place : place;
        to[place] = from < value->length ? number[from] : uint8_t{0};
    }
}

}  // namespace

numbered_element read_numbered_element(std::string_view name, const char* item,
                                       bool has_enterprises) {
    std::string_view numbers = name;
    numbers.remove_prefix(std::min(prefix.size(), numbers.size()));
    if (!name.starts_with(prefix) || numbers.empty() || numbers[0] < '0' || numbers[0] > '9')
        return {nullptr, 0};
    const size_t slash = numbers.find('/');
    if (slash == std::string_view::npos)
        die(exit_config, "Field: %s has invalid format", item);
    const std::string_view length = numbers.substr(slash + 1);
    numbers = numbers.substr(0, slash);
    uint64_t enterprise = 0;
    if (const size_t dot = numbers.find('.'); dot != std::string_view::npos) {
        enterprise = read_bounded({numbers.substr(0, dot), "enterprise number", 0xFFFFFFFF}, item);
        numbers.remove_prefix(dot + 1);
        if (!has_enterprises)
            die(exit_config, "Field: %s has an enterprise number, which IPFIX alone knows", item);
    }
    const uint64_t number = read_bounded({numbers, "element number", 0x7FFF}, item);
    // 65535 would mean that each record tells the length.
    const uint64_t bytes = read_bounded({length, "length", 0xFFFE}, item);
    return {make_element(name, number, bytes), static_cast<uint32_t>(enterprise)};
}

getter value_of_any_width(getter& value, uint32_t length) {
    if (!is_label(value) && !is_cut_oddly(value.length, length))
        return value;
    return {value.index, value.name,      value.length, &value,
            is_valid,    value.length_fn, get_any_width};
}

}  // namespace kestrel
