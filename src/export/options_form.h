// Options records on the wire: how the templates and records of an export about itself look in
// IPFIX (RFC 7011 section 3.4.2.2) and in NetFlow v9 (RFC 3954 section 6.1). Pure: no state, no
// clock.
//
// Each template has a set of its own, since some collectors read one of a set. In IPFIX the scope
// says what a record is about. In NetFlow v9 it is the system, told by the source id, and what is
// the scope in IPFIX is the first field where it says more than that.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/wire.h"

namespace kestrel {

enum class options_protocol : uint8_t { ipfix, netflow_v9 };

enum class options_kind : uint8_t { sampling, sampling_psamp, interfaces, sent, observed, unsent };

// Template ids are far beyond those of flows (see first_options_id).
inline constexpr uint16_t first_options_id = 512;
constexpr uint16_t options_id(options_kind kind) {
    return static_cast<uint16_t>(first_options_id + static_cast<uint16_t>(kind));
}

// Bytes that a name and a description take: in IPFIX at most, one more each for their length; in
// NetFlow v9 always, the rest NUL. What is longer is cut between two characters.
struct options_text_limits {
    uint16_t name;
    uint16_t description;
};
constexpr options_text_limits text_limits(options_protocol protocol) {
    return protocol == options_protocol::ipfix ? options_text_limits{254, 254}
                                               : options_text_limits{32, 64};
}

// The set of one template.
void write_options_template(wire_writer& out, options_protocol protocol, options_kind kind);
// Bytes of it.
uint32_t options_template_size(options_protocol protocol, options_kind kind);

// A set with one record. scope: what it is about; in NetFlow v9, the source id. values: of the
// fields, in their order. Not for interfaces.
void write_options_record(wire_writer& out, options_protocol protocol, options_kind kind,
                          uint32_t scope, std::span<const uint64_t> values);
uint32_t options_record_size(options_protocol protocol, options_kind kind);

// Records of interfaces come in sets of several: begin_set returns where the set's header is, for
// end_set, which pads the set.
size_t begin_options_set(wire_writer& out, options_kind kind);
void write_interface_record(wire_writer& out, options_protocol protocol, uint32_t system,
                            uint32_t number, const std::string& name,
                            const std::string& description);
uint32_t interface_record_size(options_protocol protocol, const std::string& name,
                               const std::string& description);
void end_options_set(wire_writer& out, std::span<uint8_t> buffer, size_t begin);

}  // namespace kestrel
