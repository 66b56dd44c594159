// AS tables from their text form; see as_table_file.h. Takes time in proportion to the file (and a
// sort); holds nothing of it afterwards.
#include "plugins/as_table_file.h"

#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/address.h"
#include "base/config_file.h"
#include "base/log.h"
#include "kestrelexp/service.h"

namespace kestrel {
namespace {

struct as_line {
    const char* number;
    const char* address;
    const char* prefix;
};

// Cuts the line at its first '-' and its first '/': the address stands after the one, the prefix
// length after the other, whichever comes first.
bool cut(char* line, as_line& to) {
    char* const dash = std::strchr(line, '-');
    char* const slash = std::strchr(line, '/');
    if (dash == nullptr || slash == nullptr)
        return false;
    *dash = '\0';
    *slash = '\0';
    to = {line, dash + 1, slash + 1};
    return true;
}

// The number is cut to the 16 bits that an entry has for it before it is looked at.
uint16_t prefix_length(const char* text, uint16_t most) {
    const auto length = static_cast<uint16_t>(std::strtol(text, nullptr, 10));
    if (length <= most)
        return length;
    verbose_msg(-1, "Network mask out of range: %s", text);
    return most;
}

bool add_line(const as_line& line, as_tables& to) {
    const auto address = numeric_address(line.address);
    if (!address) {
        verbose_msg(-1, "Unable to get addr: %s", line.address);
        return false;
    }
    const auto number = static_cast<uint32_t>(std::strtol(line.number, nullptr, 10));
    if (address->family == AF_INET)
        to.table4.push_back(
            make_as4_entry(number, address->words[0], prefix_length(line.prefix, 32)));
    else if (address->family == AF_INET6)
        to.table6.push_back(
            make_as6_entry(number, address->words, prefix_length(line.prefix, 128)));
    return true;
}

}  // namespace

as_file read_as_tables(const char* path, as_tables& tables) {
    const auto [outcome, lines] = read_config_file(path);
    if (outcome != config_outcome::read)
        return outcome == config_outcome::not_opened ? as_file::not_opened : as_file::faulty;
    for (size_t i = 0; lines[i] != nullptr; ++i) {
        as_line line;
        if (!cut(lines[i], line)) {
            verbose_msg(-1, "AS Helper found invalid config line: %zu", i);
            return as_file::faulty;
        }
        if (!add_line(line, tables))
            return as_file::faulty;
    }
    sort_as_tables(tables);
    return as_file::loaded;
}

}  // namespace kestrel
