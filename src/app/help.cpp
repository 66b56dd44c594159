// Help, version and the reminder of mandatory options, on standard output. The option lines come
// from the option table. Main thread, while the program starts; never changes anything.
#include "app/help.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "app/options.h"
#include "base/log.h"
#include "flow/flow_cache.h"
#include "kestrelexp/program.h"

namespace kestrel {

namespace {

constexpr int text_column = 18;

struct section_row {
    help_section section;
    const char* heading;
};

constexpr section_row sections[] = {
    {help_section::base, "Base options:"},
    {help_section::capture, "Capture options:"},
    {help_section::exports, "Export options:"},
    {help_section::other, "Other options:"},
};

void print_option(const option_row& row) {
    std::string head = std::string(" -") + row.letter;
    if (row.argument != nullptr)
        head += std::string(" ") + row.argument;

    std::string_view text = row.help;
    for (const char* start = head.c_str();; start = "") {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        std::printf("%-*s%.*s\n", text_column, start, static_cast<int>(line.size()), line.data());
        if (end == std::string_view::npos)
            return;
        text.remove_prefix(end + 1);
    }
}

}  // namespace

}  // namespace kestrel

void print_help(const plugin_registry* registry) {
    std::printf("%s %s\n\n", kestrel::program_name, kestrel::program_version);
    std::printf("Basic usage: %s -I pcap:device=ethX -E export_name:options\n", progname);
    std::printf(
        "Extended usage: %s [Base options] [Capture options] [Export options] -E name:opts "
        "[Export options] -E name:opts ... [Export options] -E name:opts\n",
        progname);
    for (const kestrel::section_row& section : kestrel::sections) {
        std::printf("\n%s\n", section.heading);
        for (const kestrel::option_row& row : kestrel::option_table())
            if (row.section == section.section)
                kestrel::print_option(row);
    }
    if (verbose_level > 0) {
        std::fflush(stdout);  // the sizes come last where both streams go to one place
        verbose_msg(1, "Record size: %lu",
                    size_t{FLOW_RECORD_BASE_SIZE} + registry->extension_length);
        verbose_msg(1, "Fast record size: %lu", sizeof(kestrel::fast_record));
    }
    std::exit(kestrel::exit_ok);
}

void print_version() {
    std::printf("%s version: %s\n", progname, kestrel::program_version);
    std::printf("compile time: %s, %s\n", __DATE__, __TIME__);
    std::printf("compiler version: %s\n", __VERSION__);
    std::printf("compile time options: -DRAWNETCAP\n");
    std::printf(
        "Copyright (c) 2026, the kestrelexp authors. All rights reserved.\n"
        "Distributed under the BSD 2-Clause License, without any warranty.\n");
    std::exit(kestrel::exit_ok);
}

void print_noparams() {
    std::printf("%s: You must specify input and at least one export.\n", progname);
    std::printf("Try %s '-h' for more information.\n", progname);
}
