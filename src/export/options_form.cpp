// The tables of options templates, and what writes them; see options_form.h.
#include "export/options_form.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "kestrelexp/template.h"

namespace kestrel {
namespace {

constexpr uint16_t ipfix_set_id = 3;
constexpr uint16_t nf9_set_id = 1;
constexpr uint16_t nf9_scope_system = 1;  // RFC 3954 section 6.1
constexpr uint16_t variable_length = 65535;
constexpr uint32_t set_header_size = 4;
constexpr uint32_t scope_size = 4;  // bytes of every scope's value
constexpr uint32_t number_size = 4;

// A template of n fields takes eight bytes at least: those of flows end far before ours.
static_assert(first_options_id > TEMPLATE_FIRST_ID + TEMPLATE_SETS_SIZE / 8);

struct options_field {
    uint16_t id;
    uint16_t length;  // bytes
};

// The texts of interfaces have no length here: it depends on the protocol.
constexpr options_field sampling_fields[] = {{34, 4}, {35, 1}};  // samplingInterval, its algorithm
constexpr options_field psamp_fields[] = {{305, 4}, {306, 4}};   // samplingPacketInterval, ...Space
constexpr options_field interface_fields[] = {{82, 0}, {83, 0}};  // interfaceName, ...Description
// exportedOctetTotalCount, exportedMessageTotalCount, exportedFlowRecordTotalCount
constexpr options_field sent_fields[] = {{40, 8}, {41, 8}, {42, 8}};
constexpr options_field observed_fields[] = {{163, 8}, {164, 8}};  // observedFlow..., ignoredPacket
// notSentFlowTotalCount, notSentPacketTotalCount, notSentOctetTotalCount
constexpr options_field unsent_fields[] = {{166, 8}, {167, 8}, {168, 8}};

constexpr uint16_t observation_domain = 149;
constexpr uint16_t exporting_process = 144;
constexpr uint16_t ingress_interface = 10;

struct options_template {
    options_kind kind;
    uint16_t scope;  // in IPFIX
    std::span<const options_field> fields;
};

// In the order of enum options_kind. The scopes of the last three are those of RFC 7011 sections
// 4.1, 4.2 and 4.3.
constexpr options_template templates[] = {
    {options_kind::sampling, observation_domain, sampling_fields},
    {options_kind::sampling_psamp, observation_domain, psamp_fields},
    {options_kind::interfaces, ingress_interface, interface_fields},
    {options_kind::sent, observation_domain, sent_fields},
    {options_kind::observed, observation_domain, observed_fields},
    {options_kind::unsent, exporting_process, unsent_fields},
};

const options_template& template_of(options_kind kind) {
    return templates[static_cast<size_t>(kind)];
}

constexpr bool is_in_order() {
    for (size_t n = 0; n < std::size(templates); ++n)
        if (templates[n].kind != static_cast<options_kind>(n))
            return false;
    return true;
}
static_assert(is_in_order());

constexpr uint32_t padding_of(size_t length) {
    return static_cast<uint32_t>(-length & 3);
}

// In NetFlow v9 the number of an interface is a field: there is no scope for it that collectors
// agree on.
bool has_number_field(options_protocol protocol, options_kind kind) {
    return protocol == options_protocol::netflow_v9 && kind == options_kind::interfaces;
}

uint32_t field_count(options_protocol protocol, const options_template& of) {
    return static_cast<uint32_t>(of.fields.size()) + (has_number_field(protocol, of.kind) ? 1 : 0);
}

uint32_t template_length(options_protocol protocol, const options_template& of) {
    constexpr uint32_t heads = set_header_size + 6 + 4;  // of set and template; the scope
    return heads + 4 * field_count(protocol, of);
}

void write_field(wire_writer& out, uint16_t id, uint16_t length) {
    out.u16(id);
    out.u16(length);
}

uint16_t text_length(options_protocol protocol, size_t field) {
    if (protocol == options_protocol::ipfix)
        return variable_length;
    const options_text_limits limits = text_limits(protocol);
    return field == 0 ? limits.name : limits.description;
}

void write_fields(wire_writer& out, options_protocol protocol, const options_template& of) {
    if (has_number_field(protocol, of.kind))
        write_field(out, ingress_interface, number_size);
    for (size_t n = 0; n < of.fields.size(); ++n) {
        const options_field& field = of.fields[n];
        write_field(out, field.id, field.length != 0 ? field.length : text_length(protocol, n));
    }
}

void write_value(wire_writer& out, uint16_t length, uint64_t value) {
    if (length == 8)
        out.u64(value);
    else if (length == 4)
        out.u32(static_cast<uint32_t>(value));
    else
        out.u8(static_cast<uint8_t>(value));
}

// What of a text in UTF-8 fits: no character is cut apart.
std::string_view cut(std::string_view text, size_t limit) {
    if (text.size() <= limit)
        return text;
    const auto continues = [](char byte) { return (static_cast<uint8_t>(byte) & 0xC0) == 0x80; };
    while (limit > 0 && continues(text[limit]))
        --limit;
    return text.substr(0, limit);
}

void write_bytes(wire_writer& out, std::string_view text) {
    if (uint8_t* const to = out.room(text.size()); to != nullptr && !text.empty())
        std::memcpy(to, text.data(), text.size());
}

void write_text(wire_writer& out, options_protocol protocol, std::string_view text,
                uint16_t limit) {
    const std::string_view shown = cut(text, limit);
    if (protocol == options_protocol::ipfix)
        out.u8(static_cast<uint8_t>(shown.size()));  // RFC 7011 section 7
    write_bytes(out, shown);
    if (protocol == options_protocol::netflow_v9)
        out.zeros(limit - shown.size());
}

}  // namespace

uint32_t options_template_size(options_protocol protocol, options_kind kind) {
    const uint32_t length = template_length(protocol, template_of(kind));
    return length + padding_of(length);
}

void write_options_template(wire_writer& out, options_protocol protocol, options_kind kind) {
    const options_template& row = template_of(kind);
    const uint32_t length = template_length(protocol, row);
    const auto fields = static_cast<uint16_t>(field_count(protocol, row));
    const bool is_ipfix = protocol == options_protocol::ipfix;
    out.u16(is_ipfix ? ipfix_set_id : nf9_set_id);
    out.u16(static_cast<uint16_t>(length + padding_of(length)));
    out.u16(options_id(kind));
    if (is_ipfix) {
        out.u16(static_cast<uint16_t>(fields + 1));  // with the scope's
        out.u16(1);
    } else {
        out.u16(4);  // bytes of the scope's specifier, then of the fields'
        out.u16(static_cast<uint16_t>(4 * fields));
    }
    write_field(out, is_ipfix ? row.scope : nf9_scope_system, scope_size);
    write_fields(out, protocol, row);
    out.zeros(padding_of(length));
}

uint32_t options_record_size(options_protocol /*protocol*/, options_kind kind) {
    uint32_t length = set_header_size + scope_size;
    for (const options_field& field : template_of(kind).fields)
        length += field.length;
    return length + padding_of(length);
}

void write_options_record(wire_writer& out, options_protocol protocol, options_kind kind,
                          uint32_t scope, std::span<const uint64_t> values) {
    const options_template& row = template_of(kind);
    const size_t begin = out.size();
    const uint32_t length = options_record_size(protocol, kind);
    out.u16(options_id(kind));
    out.u16(static_cast<uint16_t>(length));
    out.u32(scope);
    for (size_t n = 0; n < row.fields.size(); ++n)
        write_value(out, row.fields[n].length, values[n]);
    out.zeros(begin + length - out.size());
}

size_t begin_options_set(wire_writer& out, options_kind kind) {
    const size_t begin = out.size();
    out.u16(options_id(kind));
    out.u16(0);
    return begin;
}

void end_options_set(wire_writer& out, std::span<uint8_t> buffer, size_t begin) {
    out.zeros(padding_of(out.size() - begin));
    store_native(&buffer[begin + 2], byte_swap(static_cast<uint16_t>(out.size() - begin)));
}

uint32_t interface_record_size(options_protocol protocol, const std::string& name,
                               const std::string& description) {
    const options_text_limits limits = text_limits(protocol);
    if (protocol == options_protocol::netflow_v9)
        return scope_size + number_size + limits.name + limits.description;
    const size_t texts =
        cut(name, limits.name).size() + cut(description, limits.description).size();
    return static_cast<uint32_t>(number_size + 2 + texts);
}

void write_interface_record(wire_writer& out, options_protocol protocol, uint32_t system,
                            uint32_t number, const std::string& name,
                            const std::string& description) {
    const options_text_limits limits = text_limits(protocol);
    if (protocol == options_protocol::netflow_v9)
        out.u32(system);
    out.u32(number);
    write_text(out, protocol, name, limits.name);
    write_text(out, protocol, description, limits.description);
}

}  // namespace kestrel
