// What a plugin may offer beyond the entry points of its kind: optional symbols, functions or
// numbers, found when its object is loaded. One row of a table for each. Main thread, while the
// program starts; read-only afterwards.
#pragma once

#include <cstddef>
#include <span>

#include "kestrelexp/plugin.h"

// The optional operations of one plugin; null: the plugin does not offer it. (They are kept here
// and not in the plugin's own record, whose layout is fixed.)
struct plugin_operations {
    plugin_desc_function* desc;  // whose they are
    input_clock_function* clock;
    input_counters_function* counters;
    input_batch_function* get_batch;
    input_queues_function* queues;
    const int32_t* is_thread_safe;  // of a process plugin
    input_interfaces_function* interfaces;
    const int32_t* is_sampling_random;  // of an input
    export_tend_function* tend;
    plugin_operations* next;  // of the registry's chain
};

namespace kestrel {

struct operation_row {
    const char* symbol;
    int32_t kind;           // enum plugin_kind
    size_t place;           // in plugin_operations
    const char* companion;  // what it goes with; null: any
    enum { in_plugin, in_operations } companion_is;
    size_t companion_place;  // in the plugin record of its kind, or in plugin_operations
    // It goes with get_batch as well. (Rows are looked up in their order: that one is before it.)
    bool goes_with_batches = false;
};

// Every optional operation.
std::span<const operation_row> operation_table();

// Looks up the operations of one plugin of the object and keeps them for operations_of. plugin: its
// record, of the kind named. An operation without its companion is not used, which a message at
// level 0 says.
void load_operations(void* object, const char* path, int32_t kind, const void* plugin,
                     plugin_desc_function* desc, plugin_registry& registry);

// Keeps the operations of a plugin for operations_of.
void keep_operations(plugin_registry& registry, const plugin_operations& operations);

// What the plugin with this description operation offers.
const plugin_operations& operations_of(const plugin_registry& registry, plugin_desc_function* desc);

}  // namespace kestrel
