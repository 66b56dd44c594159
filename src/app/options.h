// The command line: one table of options that drives getopt, the rule on where an option may
// stand, and the help text. Main thread, while the program starts. Resolves names against the
// registry; never initialises a plugin.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "engine/run_configuration.h"

namespace kestrel {

// What the command line says: the run configuration, and what only the start-up needs.
struct settings {
    run_configuration run;
    std::optional<uint32_t> cpu_mask;
    uint32_t flow_mask = FLOW_MASK_DEFAULT;
    const char* user = nullptr;
    const char* huge_directory = nullptr;  // null: ordinary memory
};

// Where an option may stand.
enum class option_group {
    base,     // before the -E that other arguments follow
    exports,  // anywhere; acts on the export that the next -E names
    any,      // anywhere
};

enum class help_section { base, capture, exports, other };

struct option_row {
    char letter;
    const char* argument;  // its name in the help text; null: the option takes none
    option_group group;
    help_section section;
    const char* help;  // further lines follow after '\n'
    void (*apply)(settings& to, char* argument);
};

// Every option, in the order of the help text.
std::span<const option_row> option_table();

// Reads the command line into to, whose registry holds the plugins known so far. A fault ends the
// program with status 255; -h, -l and -V print and end it with status 0.
void parse_options(int argc, char** argv, settings& to);

}  // namespace kestrel
