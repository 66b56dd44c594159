// Rule files as compiled filters. docs/filter-rules.md tells the language.
#pragma once

#include "filter/filter_tables.h"

namespace kestrel {

// Reads and compiles a rule file; null after reporting why not. A null path is a file that cannot
// be read.
filter_owner filter_load(const char* path);

}  // namespace kestrel
