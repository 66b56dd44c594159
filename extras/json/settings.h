// What the parameters ask for. Main thread, while the program starts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "../flow-encoding/flow_encoding.h"
#include "compression.h"

namespace json_export {

struct file_settings {
    std::string pattern;        // with the conversions of strftime
    uint64_t rotate_s = 0;      // 0: not by time
    uint64_t rotate_bytes = 0;  // 0: not by size
    compression packing = compression::none;
    size_t longest_message = 0;  // bytes

    // Whether a file is written aside and gets its name when it is complete. A single file under a
    // fixed name is not: it is appended to.
    bool is_aside() const {
        return rotate_s != 0 || rotate_bytes != 0 || pattern.find('%') != pattern.npos;
    }
};

enum class output_kind { standard, file, fifo, socket };

struct settings {
    flow_encoding::json_settings encoding;
    output_kind output = output_kind::standard;
    std::string path;  // of a fifo or socket
    file_settings file;
    uint64_t queue_bytes = 0;
    uint32_t drain_s = 0;
};

// Returns false when the parameters make no sense, and has said why.
bool read_settings(char* params, settings& wanted);

}  // namespace json_export
