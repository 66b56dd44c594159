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

// Writes what the first step is for that has a valid value, and those after it. Steps call each
// other in turn, which compilers make jumps of: the processor foresees each of them on its own.
inline char* go_on(char* to, subject& of, const step* at) {
    while (!*at->is_valid)
        ++at;
    return at->put(to, of, at);
}

// For a member of the step's source, form and width.
put_function* member_function(const step& at);

// The key's text alone: a constant, or a piece of a long text.
put_function put_constant;

// Opens an object or array, and closes it: one without members goes where it is not kept.
put_function put_open, put_close;

// The end of all steps.
put_function put_nothing;

}  // namespace flow_encoding
