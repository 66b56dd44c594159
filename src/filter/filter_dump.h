// A filter as text, for the log.
#pragma once

#include <string>

#include "kestrelexp/filter.h"

namespace kestrel {

std::string describe(const fast4_entry& entry);
std::string describe(const fast6_entry& entry);
std::string describe(const slow_rule& rule);

// Tells what was compiled: every rule at level 7, sizes and counts at level 5, "Filter OK" at 0.
void filter_dump(const filter_rules& rules);

}  // namespace kestrel
