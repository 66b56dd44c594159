// The validity tests as data: whether a field means something in a record is asked of one number
// that the record has. The tests themselves (fields.cpp), the look-ups of templates and the
// documentation come from these rows. Constant data; any thread.
#pragma once

#include <cstdint>

#include "kestrelexp/getter.h"
#include "record/protocols.h"

// A test that getter.h declares is exported; any other is the program's own.
#define VALIDITY(name, ...) getter_valid_function record_##name##_ok;
#include "record/validity_rows.inc"
#undef VALIDITY

namespace kestrel {

// The number that a test looks at.
enum class looks_at : uint8_t {
    nothing,      // always 0
    mac_block,    // 1 when records have the block, else 0; looks at no record
    l3_protocol,  // flow_record::l3protocol
    l4_protocol,  // flow_record::l4protocol
    vlan_count,   // tags; 0 without the block
    mpls_count,   // labels; 0 without the block
};

struct validity_row {
    getter_valid_function* valid;
    looks_at number;
    bool (*holds)(unsigned number);
    const char* flows;  // those that pass, in words
};

constexpr bool always(unsigned) {
    return true;
}

template <unsigned wanted>
constexpr bool is(unsigned number) {
    return number == wanted;
}

template <unsigned limit>
constexpr bool more_than(unsigned number) {
    return number > limit;
}

#define VALIDITY(name, number, holds, flows) {record_##name##_ok, looks_at::number, holds, flows},
inline constexpr validity_row validity_rows[] = {
#include "record/validity_rows.inc"
};
#undef VALIDITY

// The row of a test; null for one that a plugin brought.
constexpr const validity_row* find_validity(getter_valid_function* valid) {
    for (const validity_row& row : validity_rows) {
        if (row.valid == valid)
            return &row;
    }
    return nullptr;
}

}  // namespace kestrel
