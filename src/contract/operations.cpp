// The table of optional operations, and the chain of what each plugin offers of it.
#include "contract/operations.h"

#include <dlfcn.h>

#include <cstring>

#include "base/log.h"
#include "base/memory.h"

namespace kestrel {

namespace {

constexpr operation_row operation_rows[] = {
    {"plugin_input_counters", PLUGIN_KIND_INPUT, offsetof(plugin_operations, counters), nullptr,
     operation_row::in_plugin, 0},
    {"plugin_input_get_batch", PLUGIN_KIND_INPUT, offsetof(plugin_operations, get_batch), nullptr,
     operation_row::in_plugin, 0},
    {"plugin_input_clock", PLUGIN_KIND_INPUT, offsetof(plugin_operations, clock),
     "plugin_input_get_packet", operation_row::in_plugin, offsetof(input_plugin, get_packet), true},
    {"plugin_input_queues", PLUGIN_KIND_INPUT, offsetof(plugin_operations, queues),
     "plugin_input_get_batch", operation_row::in_operations,
     offsetof(plugin_operations, get_batch)},
    {"plugin_process_is_thread_safe", PLUGIN_KIND_PROCESS,
     offsetof(plugin_operations, is_thread_safe), nullptr, operation_row::in_plugin, 0},
    {"plugin_input_interfaces", PLUGIN_KIND_INPUT, offsetof(plugin_operations, interfaces), nullptr,
     operation_row::in_plugin, 0},
    {"plugin_input_sampling_is_random", PLUGIN_KIND_INPUT,
     offsetof(plugin_operations, is_sampling_random), nullptr, operation_row::in_plugin, 0},
    {"plugin_export_tend", PLUGIN_KIND_EXPORT, offsetof(plugin_operations, tend), nullptr,
     operation_row::in_plugin, 0},
};

constexpr plugin_operations no_operations{};

// Whether the plugin has what the operation goes with. Operations are stored by their place in a
// record, whatever their type.
bool has_companion(const void* plugin, const plugin_operations& found, const operation_row& row) {
    if (row.companion == nullptr || (row.goes_with_batches && found.get_batch != nullptr))
        return true;
    const void* const record = row.companion_is == operation_row::in_plugin ? plugin : &found;
    void* companion;
    std::memcpy(&companion, static_cast<const char*>(record) + row.companion_place,
                sizeof companion);
    return companion != nullptr;
}

}  // namespace

std::span<const operation_row> operation_table() {
    return operation_rows;
}

void load_operations(void* object, const char* path, int32_t kind, const void* plugin,
                     plugin_desc_function* desc, plugin_registry& registry) {
    plugin_operations found{};
    for (const operation_row& row : operation_rows) {
        void* const operation = row.kind == kind ? dlsym(object, row.symbol) : nullptr;
        if (operation == nullptr)
            continue;
        if (!has_companion(plugin, found, row)) {
            verbose_msg(0, "Plugin: %s, %s goes with %s and is not used", path, row.symbol,
                        row.companion);
            continue;
        }
        std::memcpy(reinterpret_cast<char*>(&found) + row.place, &operation, sizeof operation);
    }
    found.desc = desc;
    keep_operations(registry, found);
}

void keep_operations(plugin_registry& registry, const plugin_operations& operations) {
    auto* const kept = make_lifelong<plugin_operations>(operations);
    kept->next = registry.operations;
    registry.operations = kept;
}

const plugin_operations& operations_of(const plugin_registry& registry,
                                       plugin_desc_function* desc) {
    for (const plugin_operations* known = registry.operations; known; known = known->next)
        if (known->desc == desc)
            return *known;
    return no_operations;
}

}  // namespace kestrel
