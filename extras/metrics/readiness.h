// Whether the probe does its work: it has started, frames can be taken, and every export is up.
#pragma once

#include <string>
#include <vector>

#include "readings.h"

namespace metrics {

struct missing_part {
    std::string kind;    // "program", "input" or "export"
    std::string name;    // of the last two, the value of that label
    std::string reason;  // for people
};

// Empty: ready. What the input or an export does not count is taken as well.
std::vector<missing_part> missing_parts(const reading_list& list);

}  // namespace metrics
