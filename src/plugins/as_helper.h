// The "as_helper": its state. Start-up and the record loop's thread only.
#pragma once

#include <cstdint>

#include "base/message_limit.h"
#include "plugins/as_table.h"

struct as_helper_state {
    kestrel::as_tables tables;
    uint64_t next_check;  // ns; a flow that ends later has the file looked at
    int64_t mtime;        // of the file as loaded, s
    uint32_t src_as;      // of the flow looked up last
    uint32_t dst_as;
    kestrel::message_limit stat_limit;
    const char* path;  // borrowed from the command line
};
