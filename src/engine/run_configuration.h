// What one run of the probe consists of: the chosen plugins in command-line order and the numbers
// that shape the flow cache. Filled while the program starts and read-only afterwards, except for
// plugin instances; the record loop and the flow engine borrow parts of it, so it is never freed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kestrelexp/getter.h"
#include "kestrelexp/plugin.h"
#include "kestrelexp/program.h"
#include "kestrelexp/record.h"

struct flow_switch;

namespace kestrel {

inline constexpr int32_t default_active_timeout_s = 180;
inline constexpr int32_t default_inactive_timeout_s = 5;
inline constexpr int32_t default_queue_size = 19;

// One -E with the export options in front of it.
struct export_entry {
    int32_t sampling_rate = 0;  // 1-in-N, 0: every record
    const char* name = nullptr;
    uint16_t snmp_input_if = SNMP_INTERFACE_UNSET;
    uint16_t snmp_output_if = SNMP_INTERFACE_UNSET;
    export_plugin plugin{};  // copy of the registered plugin, made when the export is initialised
    export_tend_function* tend = nullptr;  // may be null
    char* params = nullptr;
    void* instance = nullptr;
    getter* getters = nullptr;           // this export's own copy of the base table
    std::string label;                   // in its metrics, such as export="ipfix-0"
    std::vector<filter_plugin> filters;  // -F, each with its own params and instance
};

}  // namespace kestrel

struct run_configuration {
    int32_t daemonize = 0;
    int32_t active_timeout = kestrel::default_active_timeout_s;      // seconds
    int32_t inactive_timeout = kestrel::default_inactive_timeout_s;  // seconds
    int32_t queue_size = kestrel::default_queue_size;  // the flow cache has 2^queue_size slots
    int32_t input_index = -1;                          // in registry.inputs; -1: none chosen
    getter* base_getters = nullptr;
    std::vector<process_plugin> processes;      // -P
    std::vector<filter_plugin> global_filters;  // -G
    // -E; the last entry is the one that export options act on until an -E names it.
    std::vector<kestrel::export_entry> exports{1};
    plugin_registry registry{};
    flow_switch* input_switch = nullptr;  // once it is made
};
