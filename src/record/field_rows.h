// The field vocabulary as data: one row per field of the flow record. The getter table and its
// accessors (fields.cpp), the element tables of the template exporters (elements.h) and the tables
// of docs/templates.md come from these rows. A new field is one row; where it is measured, the
// parser fills its place in the record. Constant data; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>

#include "base/clock.h"
#include "kestrelexp/field.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"
#include "record/validity_rows.h"

// An accessor that getter.h declares is exported; any other is reached through the table alone.
#define FIELD(accessor, ...) getter_get_function record_get_##accessor;
#include "record/field_rows.inc"
#undef FIELD

namespace kestrel {

enum class field_kind : uint8_t {
    number,   // an identifier, a rate, a code
    counter,  // adds up over the packets of a flow
    time,
    address,
    port,
    flags,
    bytes,  // no number: leaves the record in the order in which it is stored
};

// A part of the record. The base is in every record, the others where -e put them.
enum class record_block : uint8_t { base, vlan, mpls, mac };

inline uint64_t block_offset(record_block block) {
    switch (block) {
        case record_block::base:
            return 0;
        case record_block::vlan:
            return kestrel_vlan_offset;
        case record_block::mpls:
            return kestrel_mpls_offset;
        case record_block::mac:
            return kestrel_mac_offset;
    }
    return 0;
}

inline bool has_block(record_block block) {
    return block == record_block::base || block_offset(block) != 0;
}

// How a value is come by.
enum class value_form : uint8_t {
    zeros,
    stored,         // the bytes at its place; nothing at all is written without its block
    is_not_zero,    // 1 when the bytes at its place are not all 0, else 0
    startup_time,   // of the program, in units since 1970
    since_1970,     // the time at its place, in units
    since_startup,  // the same, counted from the program's start-up
};

struct field_value {
    value_form form;
    uint16_t length;          // bytes of the value
    record_block block = {};  // where its place is
    uint16_t offset = 0;      // of its place in the block
    uint16_t width = 0;       // bytes of its place; 0: it has none
    uint64_t unit_ns = 1;     // of times
};

constexpr field_value zeros(uint16_t length) {
    return {.form = value_form::zeros, .length = length};
}
constexpr field_value stored(record_block block, size_t offset, size_t width) {
    return {.form = value_form::stored,
            .length = static_cast<uint16_t>(width),
            .block = block,
            .offset = static_cast<uint16_t>(offset),
            .width = static_cast<uint16_t>(width)};
}
constexpr field_value is_not_zero(field_value place) {
    place.form = value_form::is_not_zero;
    place.length = 1;
    return place;
}
constexpr field_value startup_time(uint64_t unit_ns) {
    return {.form = value_form::startup_time, .length = 8, .unit_ns = unit_ns};
}
constexpr field_value since_1970(field_value place, uint64_t unit_ns) {
    place.form = value_form::since_1970;
    place.unit_ns = unit_ns;
    return place;
}
constexpr field_value since_startup(field_value place, uint64_t unit_ns) {
    place.form = value_form::since_startup;
    place.unit_ns = unit_ns;
    return place;
}

template <typename Block>
inline constexpr record_block block_of = record_block::base;
template <>
inline constexpr record_block block_of<vlan_block> = record_block::vlan;
template <>
inline constexpr record_block block_of<mac_block> = record_block::mac;

#define STORED(type, member) stored(block_of<type>, offsetof(type, member), sizeof(type::member))

inline constexpr field_value flow_start = STORED(flow_record, start);
inline constexpr field_value flow_end = STORED(flow_record, end);

// Entry n of the label stack: label, traffic class and bottom bit are its low three bytes.
constexpr field_value label(size_t n) {
    return stored(record_block::mpls, offsetof(mpls_block, entry) + n * sizeof(uint32_t), 3);
}

// Where an element stands in the element tables, from 0; not at all where there is no number.
struct element_places {
    std::optional<uint16_t> in_ipfix;
    std::optional<uint16_t> in_nf9;
};

constexpr element_places both(uint16_t in_ipfix, uint16_t in_nf9) {
    return {in_ipfix, in_nf9};
}
constexpr element_places ipfix(uint16_t place) {
    return {place, std::nullopt};
}
constexpr element_places nf9(uint16_t place) {
    return {std::nullopt, place};
}

// What a collector is told a field is.
struct element_row {
    const char* name;
    uint16_t number;  // on the wire: RFC 7012, RFC 3954 section 8
    uint16_t length;  // bytes on the wire
    element_places places;
    const char* meaning;
};

constexpr element_row element(const char* name, uint16_t number, uint16_t length,
                              element_places places, const char* meaning) {
    return {name, number, length, places, meaning};
}

inline constexpr std::nullopt_t no_element = std::nullopt;

// What a field is called outside of NetFlow, and how it is written there (kestrelexp/field.h).
struct style_names {
    field_style_name goflow2[FIELD_STYLE_NAMES];
    field_style_name ecs[FIELD_STYLE_NAMES];
};

template <field_form form>
constexpr field_style_name written(const char* name) {
    return {name, static_cast<int32_t>(form)};
}
inline constexpr auto as_number = written<FIELD_FORM_NUMBER>;
inline constexpr auto as_digits = written<FIELD_FORM_DIGITS>;
inline constexpr auto as_high_byte = written<FIELD_FORM_HIGH_BYTE>;
inline constexpr auto as_low_byte = written<FIELD_FORM_LOW_BYTE>;
inline constexpr auto as_rate = written<FIELD_FORM_RATE>;
inline constexpr auto as_address = written<FIELD_FORM_ADDRESS>;
inline constexpr auto as_mac = written<FIELD_FORM_MAC>;
inline constexpr auto as_mac_hyphens = written<FIELD_FORM_MAC_HYPHENS>;
inline constexpr auto as_label = written<FIELD_FORM_LABEL>;
inline constexpr auto as_protocol = written<FIELD_FORM_PROTOCOL>;
inline constexpr auto as_transport = written<FIELD_FORM_TRANSPORT>;
inline constexpr auto as_etype = written<FIELD_FORM_ETYPE>;
inline constexpr auto as_network_type = written<FIELD_FORM_NETWORK_TYPE>;
inline constexpr auto as_time = written<FIELD_FORM_TIME>;

inline constexpr field_style_name unnamed = {nullptr, static_cast<int32_t>(FIELD_FORM_NONE)};

struct name_pair {
    field_style_name first = unnamed;
    field_style_name second = unnamed;
};
constexpr name_pair goflow2(const field_style_name& first = unnamed,
                            const field_style_name& second = unnamed) {
    return {first, second};
}
constexpr name_pair ecs(const field_style_name& first = unnamed,
                        const field_style_name& second = unnamed) {
    return {first, second};
}

constexpr style_names names(const name_pair& in_goflow2, const name_pair& in_ecs) {
    return {{in_goflow2.first, in_goflow2.second}, {in_ecs.first, in_ecs.second}};
}

inline constexpr style_names no_names = names({}, {});
inline constexpr style_names label_names =
    names(goflow2(as_label("mpls_label")), ecs(as_label("kestrelexp.mpls_label")));

struct field_row {
    const char* name;
    field_kind kind;
    record_block exists_with;  // the getter exists only in programs whose records have this block
    field_value value;
    getter_valid_function* valid;
    getter_get_function* get;
    const char* meaning;
    std::optional<element_row> element;  // the one that this field is usually sent as
    style_names names;
};

#define FIELD(accessor, name, kind, value, valid, exists_with, meaning, element, names) \
    {name,                                                                              \
     field_kind::kind,                                                                  \
     record_block::exists_with,                                                         \
     value,                                                                             \
     record_##valid##_ok,                                                               \
     record_get_##accessor,                                                             \
     meaning,                                                                           \
     element,                                                                           \
     names},
inline constexpr field_row field_rows[] = {
#include "record/field_rows.inc"
};
#undef FIELD
#undef STORED

// ---- What the rows have to keep to ----

constexpr bool is_number_length(uint16_t length) {
    return length == 1 || length == 2 || length == 4 || length == 8 || length == 16;
}

constexpr bool fits_its_kind(const field_row& row) {
    const uint16_t length = row.value.length;
    const bool is_stored = row.value.form == value_form::stored;
    const bool is_time = row.value.form == value_form::startup_time ||
                         row.value.form == value_form::since_1970 ||
                         row.value.form == value_form::since_startup;
    switch (row.kind) {
        case field_kind::number:
        case field_kind::flags:
            return !is_time && is_number_length(length);
        case field_kind::counter:
            return is_stored && (length == 4 || length == 8);
        case field_kind::time:
            return is_time && length == 8;
        case field_kind::address:
            return is_stored && (length == 4 || length == 16);
        case field_kind::port:
            return is_stored && length == 2;
        case field_kind::bytes:
            return is_stored && !is_number_length(length);
    }
    return false;
}

constexpr bool all_fit_their_kind() {
    for (const field_row& row : field_rows) {
        if (!fits_its_kind(row))
            return false;
    }
    return true;
}

// getter_add refuses a name that begins an older one.
constexpr bool names_are_unique() {
    for (size_t i = 0; i < std::size(field_rows); ++i) {
        for (size_t older = 0; older < i; ++older) {
            if (std::string_view(field_rows[older].name).starts_with(field_rows[i].name))
                return false;
        }
    }
    return true;
}

static_assert(all_fit_their_kind());
static_assert(names_are_unique());
static_assert(std::size(field_rows) + 10 <= GETTER_LIMIT, "ten places are left to plugins");

}  // namespace kestrel
