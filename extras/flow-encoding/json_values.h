// The members of an object: for each form of a value, and each place that it may come from, a
// function that writes key, value and comma. The record loop's thread: no allocation, no system
// call.
#pragma once

#include <kestrelexp/record.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "json_plan.h"

namespace flow_encoding {

// What stays the same for a record.
struct subject {
    json_plan& plan;
    const flow_record& record;
    uint64_t now_ns;
    char* starts[depth_limit];  // of the objects and arrays that are open
};

inline char* put_piece(char* to, const char* text, size_t length) {
    std::memcpy(to, text, key_piece);
    if (length > key_piece)
        std::memcpy(to + key_piece, text + key_piece, length - key_piece);
    return to + length;
}

// For a member of the step's source, form and width.
put_function* member_function(const step& at);

// Opens an object or array, and closes it: one without members goes where it is not kept.
put_function put_open, put_end;

}  // namespace flow_encoding
