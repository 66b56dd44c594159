// Members; see json_values.h.
#include "json_values.h"

#include <kestrelexp/field.h>

#include <string_view>

#include "community_id.h"
#include "json_text.h"

namespace flow_encoding {
namespace {

// ---- Numbers: where they come from ----

using load_function = uint64_t(const subject& of, const step& at);

template <typename T>
uint64_t load_place(const subject& of, const step& at) {
    T value;
    std::memcpy(&value, reinterpret_cast<const uint8_t*>(&of.record) + at.offset, sizeof value);
    return value;
}

uint64_t load_field(const subject& of, const step& at) {
    uint64_t number = 0;
    // A number of three bytes has no other width than its own.
    at.field->get(at.field->context, &of.record, &number, at.length == 3 ? 3 : sizeof number, 0,
                  at.field);
    return number;
}

uint64_t load_sequence(const subject& of, const step&) {
    return of.plan.sequence;
}

uint64_t load_received(const subject& of, const step&) {
    return of.now_ns;
}

uint64_t load_duration(const subject& of, const step&) {
    return of.record.end > of.record.start ? of.record.end - of.record.start : 0;
}

// ---- Numbers: how they are written ----

char* put_rate(char* to, uint64_t rate) {
    return put_number(to, rate == 0 ? 1 : rate);
}

char* put_high_byte(char* to, uint64_t value) {
    return put_number(to, value >> 8);
}

char* put_low_byte(char* to, uint64_t value) {
    return put_number(to, value & 0xFF);
}

// After the label stand its traffic class and the bottom bit.
char* put_label(char* to, uint64_t entry) {
    return put_number(to, entry >> 4);
}

// A name in quotes, stored as a whole word.
struct short_name {
    char text[8];
    uint8_t length;
};

inline char* put_version_name(char* to, uint64_t version, const short_name& four,
                              const short_name& six) {
    static constexpr short_name none{"\"\"", 2};
    const short_name& name = version == 4 ? four : version == 6 ? six : none;
    std::memcpy(to, name.text, sizeof name.text);
    return to + name.length;
}

char* put_etype(char* to, uint64_t version) {
    static constexpr short_name four{"\"IPv4\"", 6}, six{"\"IPv6\"", 6};
    return put_version_name(to, version, four, six);
}

char* put_network_type(char* to, uint64_t version) {
    static constexpr short_name four{"\"ipv4\"", 6}, six{"\"ipv6\"", 6};
    return put_version_name(to, version, four, six);
}

// ---- Members ----

using write_function = char*(char* to, uint64_t value);
using value_function = char*(char* to, subject& of, const step& at);

// One piece, whatever the length.
inline char* put_key(char* to, const step& at) {
    std::memcpy(to, at.key, key_piece);
    return to + at.key_length;
}

template <value_function* put_value>
char* put_member(char* to, subject& of, const step* at) {
    to = put_value(put_key(to, *at), of, *at);
    return go_on(put_character(to, ','), of, at + at->advance);
}

template <load_function* load, write_function* write>
char* put_loaded(char* to, subject& of, const step& at) {
    return write(to, load(of, at));
}

template <load_function* load, write_function* write>
constexpr put_function* number = put_member<put_loaded<load, write>>;

// Nothing at all for a protocol without a name. The name's text has the comma.
template <load_function* load>
char* put_protocol(char* to, subject& of, const step* at) {
    const quoted_name& name = of.plan.protocols[load(of, *at) & 0xFF];
    if (name.length != 0) {
        to = put_key(to, *at);
        std::memcpy(to, name.text.data(), name.text.size());
        to += name.length;
    }
    return go_on(to, of, at + at->advance);
}

template <load_function* load>
put_function* number_member(int form) {
    switch (form) {
        case FIELD_FORM_DIGITS:
            return number<load, put_digits>;
        case FIELD_FORM_HIGH_BYTE:
            return number<load, put_high_byte>;
        case FIELD_FORM_LOW_BYTE:
            return number<load, put_low_byte>;
        case FIELD_FORM_RATE:
            return number<load, put_rate>;
        case FIELD_FORM_LABEL:
            return number<load, put_label>;
        case FIELD_FORM_PROTOCOL:
        case FIELD_FORM_TRANSPORT:
            return put_protocol<load>;
        case FIELD_FORM_ETYPE:
            return number<load, put_etype>;
        case FIELD_FORM_NETWORK_TYPE:
            return number<load, put_network_type>;
        case FIELD_FORM_TIME:
            return number<load, put_time>;
        default:
            return number<load, put_number>;
    }
}

// ---- Other values ----

// The bytes of a field, the numbers in them in network order where that is asked for.
const uint8_t* bytes_of(const subject& of, const step& at, uint32_t network_order) {
    uint8_t* const bytes = of.plan.value.data();
    at.field->get(at.field->context, &of.record, bytes, at.length, network_order, at.field);
    return bytes;
}

char* put_ipv4_place(char* to, subject& of, const step& at) {
    const uint32_t number = __builtin_bswap32(static_cast<uint32_t>(load_place<uint32_t>(of, at)));
    uint8_t bytes[4];
    std::memcpy(bytes, &number, sizeof bytes);
    return put_ipv4(to, bytes);
}

char* put_address(char* to, subject& of, const step& at) {
    const uint8_t* const bytes = bytes_of(of, at, 1);
    return at.length == 4 ? put_ipv4(to, bytes) : put_ipv6(to, bytes);
}

char* put_mac_colons(char* to, subject& of, const step& at) {
    return put_mac(to, bytes_of(of, at, 1), "0123456789abcdef", ':');
}

char* put_mac_hyphens(char* to, subject& of, const step& at) {
    return put_mac(to, bytes_of(of, at, 1), "0123456789ABCDEF", '-');
}

char* put_field_text(char* to, subject& of, const step& at) {
    std::memset(of.plan.value.data(), 0, at.length);
    const auto* const text = reinterpret_cast<const char*>(bytes_of(of, at, 0));
    return put_text(to, {text, strnlen(text, at.length)});
}

char* put_conversation(char* to, subject& of, const step&) {
    *to++ = '"';
    put_community_id(to, of.record, of.plan.seed);
    return put_character(to + community_id_length, '"');
}

put_function* field_member(const step& at) {
    switch (at.form) {
        case FIELD_FORM_ADDRESS:
            return at.width == 4 ? put_member<put_ipv4_place> : put_member<put_address>;
        case FIELD_FORM_MAC:
            return put_member<put_mac_colons>;
        case FIELD_FORM_MAC_HYPHENS:
            return put_member<put_mac_hyphens>;
        case FIELD_FORM_TEXT:
            return put_member<put_field_text>;
        default:
            break;
    }
    switch (at.width) {
        case 1:
            return number_member<load_place<uint8_t>>(at.form);
        case 2:
            return number_member<load_place<uint16_t>>(at.form);
        case 4:
            return number_member<load_place<uint32_t>>(at.form);
        case 8:
            return number_member<load_place<uint64_t>>(at.form);
        default:
            return number_member<load_field>(at.form);
    }
}

}  // namespace

char* put_constant(char* to, subject& of, const step* at) {
    return go_on(put_key(to, *at), of, at + at->advance);
}

char* put_open(char* to, subject& of, const step* at) {
    of.starts[at->depth] = to;
    std::memcpy(to, at->key, at->key_length);  // of any length
    return go_on(to + at->key_length, of, at + 1);
}

// The last comma makes room for the bracket.
char* put_close(char* to, subject& of, const step* at) {
    if (to[-1] == ',')
        to[-1] = at->end;
    else if (at->is_kept)
        *to++ = at->end;
    else
        return go_on(of.starts[at->depth], of, at + 1);
    return go_on(put_character(to, ','), of, at + 1);
}

char* put_nothing(char* to, subject&, const step*) {
    return to;
}

put_function* member_function(const step& at) {
    switch (at.source) {
        case origin::field:
            return field_member(at);
        case origin::sequence:
            return number_member<load_sequence>(at.form);
        case origin::received:
            return number_member<load_received>(at.form);
        case origin::duration:
            return number_member<load_duration>(at.form);
        case origin::community_id:
            return put_member<put_conversation>;
        case origin::constant:
        case origin::key:
            return put_constant;
    }
    return put_constant;
}

}  // namespace flow_encoding
