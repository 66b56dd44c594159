// The parameters of the plugin.
#pragma once

#include <cstdint>
#include <string>

namespace ipfix_file {

struct settings {
    std::string directory;  // as it was given, without a '/' at its end; "." where there was none
    std::string pattern;    // of the file's name, with fields of strftime(3)
    std::string template_file = "/etc/kestrel/ipfix-template.txt";
    uint64_t rotate_s = 0;      // 0: the time ends no file
    uint64_t rotate_bytes = 0;  // 0: their size ends none
    uint64_t queue_bytes = 0;
    uint32_t drain_s = 0;
    uint32_t source_id = 0;  // observation domain
};

// False after saying what is wrong: bad numbers, a name that cannot be one, a directory that cannot
// be written to.
bool read_settings(char* params, settings& wanted);

}  // namespace ipfix_file
