// Configuration files with what became of reading them; read_config in service.h is the same for
// those who need only the lines. Any thread. Blocks as long as the file does.
#pragma once

#include <cstddef>

#include "base/heap.h"

namespace kestrel {

// A file beyond these is no configuration: a device, a pipe without end, a file of another kind. A
// table of all routes of the Internet has some 30 MiB.
inline constexpr size_t config_line_limit = size_t{1} << 20;    // bytes, line end included
inline constexpr size_t config_file_limit = size_t{128} << 20;  // bytes

enum class config_outcome {
    read,
    not_opened,  // nothing was said
    unreadable,  // opened, but not read to its end; the reason was said at level -1
};

struct config_file {
    config_outcome outcome;
    config_lines lines;  // null unless read
};

config_file read_config_file(const char* path);

}  // namespace kestrel
