// The command line as one table and the loop that walks it; see options.h. Main thread, while the
// program starts. Arguments stay where they are or are copied once for the life of the program.
#include "app/options.h"

#include <getopt.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "base/log.h"
#include "contract/plugin_loader.h"
#include "contract/plugin_registry.h"
#include "flow/flow_cache.h"
#include "kestrelexp/service.h"

namespace kestrel {

namespace {

// The pieces of "first:second" in a heap copy that starts at first; what stands after a second ':'
// is ignored. Either may be null.
struct argument_pair {
    char* first;
    char* second;
};

argument_pair split_pair(char* argument) {
    char** const pieces = char_split(argument, ':', 1);
    char* const first = pieces[0];
    char* const second = first != nullptr ? pieces[1] : nullptr;
    std::free(pieces);
    return {first, second};
}

// A decimal number as far as it goes (0 when it does not), held within 32 bits.
int32_t decimal(const char* text) {
    constexpr long low = std::numeric_limits<int32_t>::min();
    constexpr long high = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(std::strtol(text, nullptr, 10), low, high));
}

const char* or_empty(const char* text) {
    return text != nullptr ? text : "";
}

// All that stands after the name in "name:params", where it was given; null when that is nothing.
char* whole_params(char* argument) {
    char* const name = argument + std::strspn(argument, ":");
    char* const end = name + std::strcspn(name, ":");
    return end[0] != '\0' && end[1] != '\0' ? end + 1 : nullptr;
}

// The params of "name:params" as the plugin wants them.
char* wanted_params(const plugin_description& plugin, argument_pair pieces, char* argument) {
    return (plugin.flags & PLUGIN_WHOLE_PARAMS) != 0 ? whole_params(argument) : pieces.second;
}

// The params once the name has served; they live as long as the program, and with them the copy
// that holds the pieces, if that is where they are.
char* kept_params(argument_pair pieces, char* params) {
    if (params == nullptr || params != pieces.second)
        std::free(pieces.first);
    return params;
}

template <typename Plugin>
Plugin& choose(const settings& settings, const char* name, const char* not_found) {
    Plugin* const plugin = find_by_prefix<Plugin>(settings.run.registry, name);
    if (plugin == nullptr)
        die(exit_config, "%s: %s not found.", not_found, or_empty(name));
    return *plugin;
}

filter_plugin chosen_filter(const settings& settings, char* argument) {
    const argument_pair pieces = split_pair(argument);
    filter_plugin filter = choose<filter_plugin>(settings, pieces.first, "Filter");
    filter.params = kept_params(pieces, wanted_params(*filter.desc(), pieces, argument));
    return filter;
}

export_entry& open_export(settings& to) {
    return to.run.exports.back();
}

void set_daemon(settings& to, char*) {
    to.run.daemonize = 1;
}

void add_block(settings& to, char* argument) {
    struct block_row {
        const char* word;
        uint16_t size;
        uint64_t* offset;
    };
    static constexpr block_row blocks[] = {
        {"vlan", sizeof(vlan_block), &kestrel_vlan_offset},
        {"mpls", sizeof(mpls_block), &kestrel_mpls_offset},
        {"mac", sizeof(mac_block), &kestrel_mac_offset},
    };
    // A word that names no block is ignored: command lines may ask for blocks of other versions.
    for (const block_row& block : blocks)
        if (std::strcmp(argument, block.word) == 0)
            *block.offset = reserve_record_space(to.run.registry, block.size);
}

// A mask of all 32 bits is none: the process keeps the CPUs that it has.
void set_cpu_mask(settings& to, char* argument) {
    const auto mask = static_cast<uint32_t>(std::strtoull(argument, nullptr, 10));
    to.cpu_mask = mask == ~uint32_t{0} ? std::nullopt : std::optional(mask);
}

void set_user(settings& to, char* argument) {
    to.user = argument;
}

void set_verbosity(settings&, char* argument) {
    verbose_level = decimal(argument);
}

void set_huge_directory(settings& to, char* argument) {
    to.huge_directory = argument;
}

void load_plugins(settings& to, char* argument) {
    char** const files = char_split(argument, ',', 1);
    for (char** file = files; *file != nullptr; ++file) {
        verbose_msg(0, "Plugin to load: %s", *file);
        add_plugin(*file, &to.run.registry);
    }
    std::free(files[0]);
    std::free(files);
}

void add_global_filter(settings& to, char* argument) {
    to.run.global_filters.push_back(chosen_filter(to, argument));
}

void add_process(settings& to, char* argument) {
    const argument_pair pieces = split_pair(argument);
    process_plugin process = choose<process_plugin>(to, pieces.first, "Plugin");
    process.params = kept_params(pieces, pieces.second);
    process.data_offset = reserve_record_space(to.run.registry, process.desc()->data_size);
    if (process.desc()->flags != 0)
        to.run.registry.process_flag = 1;
    to.run.processes.push_back(process);
}

void set_flow_mask(settings& to, char* argument) {
    to.flow_mask = static_cast<uint32_t>(std::strtoull(argument, nullptr, 0));
}

void set_input(settings& to, char* argument) {
    // The first registered input counts as a default: a later -I replaces it. Any other choice is
    // final.
    if (to.run.input_index > 0)
        die(exit_config, "Input driver allready defined");
    const argument_pair pieces = split_pair(argument);
    input_plugin& input = choose<input_plugin>(to, pieces.first, "Plugin");
    input.params = kept_params(pieces, wanted_params(*input.desc(), pieces, argument));
    input.data_offset = reserve_record_space(to.run.registry, input.desc()->data_size);
    to.run.input_index = static_cast<int32_t>(&input - to.run.registry.inputs);
}

void set_queue_size(settings& to, char* argument) {
    // What the message has always counted: the record without blocks, and the fast record. A slot
    // takes more: see "How much memory" in docs/operations.md.
    constexpr uint64_t bytes_per_slot = FLOW_RECORD_BASE_SIZE + sizeof(fast_record);
    static_assert(bytes_per_slot == 112);
    const int32_t size = decimal(argument);
    if (size < 5 || size > 30)
        die(exit_config, "%i is not valid queue size", size);
    to.run.queue_size = size;
    verbose_msg(0, "Queue mem = %lu", (uint64_t{1} << size) * bytes_per_slot);
}

void set_timeouts(settings& to, char* argument) {
    const argument_pair pieces = split_pair(argument);
    int32_t& active = to.run.active_timeout;
    int32_t& inactive = to.run.inactive_timeout;
    if (pieces.first != nullptr)
        active = decimal(pieces.first);
    if (pieces.second != nullptr)
        inactive = decimal(pieces.second);
    std::free(pieces.first);

    verbose_msg(1, "Active timeout: %i", active);
    verbose_msg(1, "Inactive timeout: %i", inactive);
    if (inactive < 1 || inactive > 600)
        die(exit_config, "Inactive timeout out of range");
    if (active < 4 || active > 6000)
        die(exit_config, "Active timeout out of range");
    if (active <= inactive)
        die(exit_config, "Active timeout less or equal inactive timeout");
}

// Names the entry that the export options so far belong to. A name that is not known is refused
// when the export is initialised.
void name_export(settings& to, char* argument) {
    const argument_pair pieces = split_pair(argument);
    const export_plugin* const plugin = find_by_name<export_plugin>(to.run.registry, pieces.first);
    open_export(to).name = pieces.first;
    open_export(to).params =
        plugin != nullptr ? wanted_params(*plugin->desc(), pieces, argument) : pieces.second;
}

void set_output_interface(settings& to, char* argument) {
    open_export(to).snmp_output_if = static_cast<uint16_t>(decimal(argument));
}

void set_input_interface(settings& to, char* argument) {
    open_export(to).snmp_input_if = static_cast<uint16_t>(decimal(argument));
}

void add_export_filter(settings& to, char* argument) {
    open_export(to).filters.push_back(chosen_filter(to, argument));
}

void set_sampling(settings& to, char* argument) {
    const int32_t rate = decimal(argument);
    if (rate < 0)
        die(exit_config, "Bad sampling rate");
    open_export(to).sampling_rate = rate;
}

void show_help(settings& to, char*) {
    print_help(&to.run.registry);
}

void show_plugins(settings& to, char*) {
    print_plugins(&to.run.registry);
}

void show_version(settings&, char*) {
    print_version();
}

using enum option_group;

static_assert(default_queue_size == 19 && default_active_timeout_s == 180,
              "the help text names these defaults");

constexpr option_row option_rows[] = {
    {'d', nullptr, base, help_section::base, "daemonize", set_daemon},
    {'e', "block", base, help_section::base,
     "extend the flow record with a block: vlan, mpls or mac. May exist multiple times.",
     add_block},
    {'m', "mask", base, help_section::base, "set CPU affinity mask (decimal)", set_cpu_mask},
    {'u', "user", base, help_section::base, "run as this user", set_user},
    {'v', "level", base, help_section::base, "set verbosity level (0-5)", set_verbosity},
    {'H', "dir", any, help_section::base,
     "hugetlbfs dir (may really improve speed for large queues. You must have properly set "
     "hugetlbfs).",
     set_huge_directory},
    {'X', "file", base, help_section::base,
     "Load external plugin from file. May exist multiple times for multiple plugins.",
     load_plugins},
    {'G', "name:params", base, help_section::base,
     "Use filter named 'name' as global filter for all exports.", add_global_filter},
    {'P', "name:params", base, help_section::base, "Use process plugin named 'name'.", add_process},
    {'C', "mask", base, help_section::capture,
     "set flow identification bitmap (sum of the bits below)\n"
     "IP        = 0x0001 (ipv4,ipv6)\n"
     "PORTS     = 0x0002 (udp,tcp,sctp)\n"
     "ICMP      = 0x0004 (icmp type and code)\n"
     "MAC       = 0x0008 (src,dst ethernet MAC)\n"
     "L3_ID     = 0x0010 (l3 protol id)\n"
     "L4_ID     = 0x0020 (l4 protocol id)\n"
     "INTERFACE = 0x0040 (interface number)\n"
     "VLAN_ID   = 0x0080 (all vlan id's found in packet)\n"
     "MPLS_ID   = 0x0100 (all mpls tag's found in packet)\n"
     "Default is 0x0077 (IP,PORTS,ICMP,L3_ID,L4_ID,INTERFACE)\n"
     "May be set as decimal or hexadecimal (0x..) number.",
     set_flow_mask},
    {'I', "name:params", base, help_section::capture, "Use input driver named 'name'.", set_input},
    {'q', "size", base, help_section::capture,
     "set queue size in power of 2 (range 5-30), (default: 19).", set_queue_size},
    // The inactive default is 5 s. The text keeps saying 10 s, which operators' notes quote.
    {'t', "a:i", base, help_section::capture,
     "set active and inactive timeout (defaults are 180s and 10s).", set_timeouts},
    {'E', "name:params", any, help_section::exports, "Use export named 'name'.", name_export},
    {'n', "id", exports, help_section::exports, "set SNMP output interface id",
     set_output_interface},
    {'N', "id", exports, help_section::exports, "set SNMP input interface id", set_input_interface},
    {'F', "name:params", exports, help_section::exports,
     "Use filter named 'name' for this export. May exist multiple times.", add_export_filter},
    {'S', "rate", exports, help_section::exports, "set flow sampling rate (export level sampling).",
     set_sampling},
    {'h', nullptr, any, help_section::other, "print this help", show_help},
    {'l', nullptr, any, help_section::other, "list known plugins", show_plugins},
    {'V', nullptr, any, help_section::other, "print version", show_version},
};

// The leading '-' makes getopt hand out a stray word as option 1, which is in no table.
std::string getopt_letters() {
    std::string letters = "-";
    for (const option_row& row : option_rows) {
        letters += row.letter;
        if (row.argument != nullptr)
            letters += ':';
    }
    return letters;
}

const option_row& row_of(int letter) {
    for (const option_row& row : option_rows)
        if (row.letter == letter)
            return row;
    die(exit_config, "Unknown option found: %c", letter);
}

void check_argument(const option_row& row, const char* argument) {
    if (row.argument == nullptr)
        return;
    if (argument == nullptr)
        die(exit_config, "Parameter missing for option: -%c", row.letter);
    if (argument[0] == '\0' || argument[0] == '-')
        die(exit_config, "Blank or bad parameter for option: -%c", row.letter);
}

}  // namespace

std::span<const option_row> option_table() {
    return option_rows;
}

void parse_options(int argc, char** argv, settings& to) {
    const std::string letters = getopt_letters();
    bool is_export_reopened = false;  // an -E was read and opened the entry after it
    bool is_entry_touched = false;    // an export option stands after the last -E

    optind = 0;  // start afresh
    for (int letter; (letter = getopt(argc, argv, letters.c_str())) != -1;) {
        const option_row& row = row_of(letter);
        check_argument(row, optarg);
        if (row.group == base && is_export_reopened)
            die(exit_config, "Base parameter can't be set here");
        row.apply(to, optarg);

        if (row.letter == 'E') {
            is_entry_touched = false;
            is_export_reopened = optind < argc;
            if (is_export_reopened)
                to.run.exports.emplace_back();
        } else if (row.group == exports) {
            is_entry_touched = true;
        }
    }
    // An entry that nothing was said about is no export; one with options but without a name is
    // kept, to be refused in its turn.
    if (is_export_reopened && !is_entry_touched)
        to.run.exports.pop_back();
}

}  // namespace kestrel
