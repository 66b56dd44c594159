// All elements that a template may name: those of the fields, and those that no field supplies.
// Constant data; any thread.
#pragma once

#include <array>
#include <cstddef>

#include "record/field_rows.h"

namespace kestrel {

// Elements that collectors know and the record has no field for. Plugins supply some (AS numbers).
inline constexpr element_row elements_without_field[] = {
    element("FLOWS", 3, 4, both(2, 2), "number of flows aggregated"),
    element("SRC_MASK", 9, 1, nf9(8), "source prefix length"),
    element("DST_MASK", 13, 1, nf9(12), "destination prefix length"),
    // A name is found by its first row that begins it, so SRC_AS32 stands before SRC_AS.
    element("SRC_AS32", 16, 4, both(26, 15), "source AS number, 32 bits"),
    element("SRC_AS", 16, 2, both(28, 17), "source AS number, 16 bits"),
    element("DST_AS32", 17, 4, both(27, 16), "destination AS number, 32 bits"),
    element("DST_AS", 17, 2, both(29, 18), "destination AS number, 16 bits"),
    element("IPV4_NEXT_HOP", 18, 4, nf9(14), "address of the next router"),
    element("OUT_BYTES", 23, 4, both(12, 21), "bytes after the observation point"),
    element("OUT_PKTS", 24, 4, both(13, 22), "packets after the observation point"),
    element("IPV6_FLOW_LABEL", 31, 3, nf9(25), "flow label"),
    element("FLOW_ACTIVE_TIMEOUT", 36, 4, both(19, 29), "seconds"),
    element("FLOW_INACTIVE_TIMEOUT", 37, 4, both(20, 30), "seconds"),
    element("ENGINE_TYPE", 38, 4, both(21, 31), "kind of the exporting engine"),
    element("ENGINE_ID", 39, 4, both(22, 32), "number of the exporting engine"),
};

constexpr size_t element_count() {
    size_t count = std::size(elements_without_field);
    for (const field_row& row : field_rows)
        count += row.element ? 1 : 0;
    return count;
}

// An element and the field that supplies it.
struct supplied_element {
    element_row element = {};
    const field_row* field = nullptr;  // null: no field of the record does
};

inline constexpr auto all_elements = [] {
    std::array<supplied_element, element_count()> all = {};
    size_t count = 0;
    for (const field_row& row : field_rows) {
        if (row.element)
            all[count++] = {*row.element, &row};
    }
    for (const element_row& row : elements_without_field)
        all[count++] = {row, nullptr};
    return all;
}();

}  // namespace kestrel
