// The list of known plugins, four kinds handled by one piece of code. Main thread, while the
// program starts; read-only afterwards. Never initialises a plugin.
#pragma once

#include <cstring>
#include <span>

#include "kestrelexp/plugin.h"

namespace kestrel {

// Where the registry keeps the plugins of one kind, and how the plugin list calls them.
template <typename Plugin>
struct kind;

template <>
struct kind<input_plugin> {
    static constexpr int32_t bit = PLUGIN_KIND_INPUT;  // in plugin_type
    static constexpr auto count = &plugin_registry::input_count;
    static constexpr auto array = &plugin_registry::inputs;
    static constexpr const char* title = "INPUT";
};
template <>
struct kind<export_plugin> {
    static constexpr int32_t bit = PLUGIN_KIND_EXPORT;  // in plugin_type
    static constexpr auto count = &plugin_registry::export_count;
    static constexpr auto array = &plugin_registry::exports;
    static constexpr const char* title = "EXPORT";
};
template <>
struct kind<filter_plugin> {
    static constexpr int32_t bit = PLUGIN_KIND_FILTER;  // in plugin_type
    static constexpr auto count = &plugin_registry::filter_count;
    static constexpr auto array = &plugin_registry::filters;
    static constexpr const char* title = "FILTER";
};
template <>
struct kind<process_plugin> {
    static constexpr int32_t bit = PLUGIN_KIND_PROCESS;  // in plugin_type
    static constexpr auto count = &plugin_registry::process_count;
    static constexpr auto array = &plugin_registry::processes;
    static constexpr const char* title = "PROCESS";
};

// The registered plugins of one kind, in order of registration.
template <typename Plugin>
std::span<Plugin> plugins_of(const plugin_registry& registry) {
    return {registry.*kind<Plugin>::array, static_cast<size_t>(registry.*kind<Plugin>::count)};
}

// Appends a plugin, or ends the program when it breaks the contract (see add_*_plugin).
template <typename Plugin>
void register_plugin(plugin_registry& registry, const Plugin& plugin);

// The plugin of exactly this name, or null; a null name is nobody's.
template <typename Plugin>
Plugin* find_by_name(const plugin_registry& registry, const char* name) {
    for (Plugin& plugin : plugins_of<Plugin>(registry))
        if (name != nullptr && std::strcmp(plugin.desc()->name, name) == 0)
            return &plugin;
    return nullptr;
}

// The first plugin whose name begins with prefix, or null; a null prefix begins no name.
template <typename Plugin>
Plugin* find_by_prefix(const plugin_registry& registry, const char* prefix) {
    for (Plugin& plugin : plugins_of<Plugin>(registry))
        if (prefix != nullptr &&
            std::strncmp(plugin.desc()->name, prefix, std::strlen(prefix)) == 0)
            return &plugin;
    return nullptr;
}

// Reserves bytes at the current end of the record's data space and returns their offset from the
// start of the record. A record that would pass 65,535 bytes ends the program: offsets are 16 bits.
uint16_t reserve_record_space(plugin_registry& registry, uint16_t bytes);

}  // namespace kestrel
