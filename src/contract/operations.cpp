// The table of optional operations, and the chain of what each plugin offers of it.
#include "contract/operations.h"

#include <dlfcn.h>

#include <cstring>

#include "base/log.h"
#include "base/memory.h"

namespace kestrel {

namespace {

constexpr operation_row operation_rows[] = {
    {"plugin_input_clock", PLUGIN_KIND_INPUT, offsetof(plugin_operations, clock),
     "plugin_input_get_packet", offsetof(input_plugin, get_packet)},
};

constexpr plugin_operations no_operations{};

// Operations are stored by their place in a record, whatever their type.
void* operation_at(const void* record, size_t place) {
    void* operation;
    std::memcpy(&operation, static_cast<const char*>(record) + place, sizeof operation);
    return operation;
}

}  // namespace

std::span<const operation_row> operation_table() {
    return operation_rows;
}

void load_operations(void* object, const char* path, int32_t kind, const void* plugin,
                     plugin_desc_function* desc, plugin_registry& registry) {
    auto* const found = make_lifelong<plugin_operations>();
    for (const operation_row& row : operation_rows) {
        void* const operation = row.kind == kind ? dlsym(object, row.symbol) : nullptr;
        if (operation == nullptr)
            continue;
        if (operation_at(plugin, row.companion_place) == nullptr) {
            verbose_msg(0, "Plugin: %s, %s goes with %s and is not used", path, row.symbol,
                        row.companion);
            continue;
        }
        std::memcpy(reinterpret_cast<char*>(found) + row.place, &operation, sizeof operation);
    }
    found->desc = desc;
    found->next = registry.operations;
    registry.operations = found;
}

const plugin_operations& operations_of(const plugin_registry& registry,
                                       plugin_desc_function* desc) {
    for (const plugin_operations* known = registry.operations; known; known = known->next)
        if (known->desc == desc)
            return *known;
    return no_operations;
}

}  // namespace kestrel
