// Elements that a template names by number and length, "id461/4", and in IPFIX also by the number
// of an enterprise, "id32473.57/4" (RFC 7011 section 3.2). Main thread, while the program starts,
// save for the accessor of values of any width. A fault ends the program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kestrelexp/template.h"

namespace kestrel {

struct numbered_element {
    const template_element* element;  // lives for the whole run; null: not given by number
    uint32_t enterprise;              // 0: none, the number is one of IANA's
};

// name: what stands before the '=' of the item, which is told when there is a fault.
numbered_element read_numbered_element(std::string_view name, const char* item,
                                       bool has_enterprises);

// The entry that supplies a numbered element of so many bytes from an entry of a table: itself, or
// one that sends a number of a width that machines have none of (3, 5, 6, 7 bytes), or a label, in
// network order. The entry of the table stays where it is.
getter value_of_any_width(getter& value, uint32_t length);

// Bytes that the accessor of a plugin may write beyond the natural length of its field.
inline constexpr size_t value_margin = 64;

}  // namespace kestrel
