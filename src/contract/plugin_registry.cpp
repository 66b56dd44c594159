// The list of known plugins: registration, its checks, and the list printed by -l. Main thread,
// while the program starts. Never opens a shared object and never initialises a plugin.
#include "contract/plugin_registry.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "base/log.h"
#include "contract/operations.h"
#include "kestrelexp/service.h"

namespace kestrel {

namespace {

// One way to deliver beside batches, and frames on request only beside get_flow. Other kinds have
// no such rule.
template <typename Plugin>
void check_operations(const plugin_registry&, const Plugin&) {}

template <>
void check_operations(const plugin_registry& registry, const input_plugin& plugin) {
    const int methods = (plugin.get_packet != nullptr) + (plugin.get_flow != nullptr) +
                        (plugin.get_final_flow != nullptr);
    if (methods == 0 && operations_of(registry, plugin.desc).get_batch == nullptr)
        die(exit_config, "Invalid input plugin");
    if (methods > 1)
        die(exit_config, "Invalid input plugin (multiple input methods present)");
    if (plugin.get_flow_packet != nullptr && plugin.get_flow == nullptr)
        die(exit_config,
            "Invalid input plugin (get_packet and get_final_flow can't coexist with "
            "get_flow_packet");
}

template <typename Plugin>
void print_kind(const plugin_registry& registry) {
    std::printf("\n%s Plugin(s)\n", kind<Plugin>::title);
    for (const Plugin& plugin : plugins_of<Plugin>(registry)) {
        const plugin_description* description = plugin.desc();
        std::printf("name: %s\n%s\n\n", description->name, description->description);
    }
}

// Stands in for operations that a plugin may leave out but the program calls unasked.
template <typename Plugin>
void fill_defaults(Plugin&) {}

// A driver that does not sample. The detour over void (*)() says that the call with an argument
// that goes unread is meant.
template <>
void fill_defaults(input_plugin& plugin) {
    if (plugin.sampling == nullptr)
        plugin.sampling = reinterpret_cast<input_sampling_function*>(
            reinterpret_cast<void (*)()>(return_zero_func));
}

}  // namespace

template <typename Plugin>
void register_plugin(plugin_registry& registry, const Plugin& plugin) {
    const char* name = plugin.desc()->name;
    if (find_by_name<Plugin>(registry, name) != nullptr)
        die(exit_config, "Duplicate plugin name: %s", name);

    const std::span<Plugin> known = plugins_of<Plugin>(registry);
    auto* grown = static_cast<Plugin*>(malloc_wrapper((known.size() + 1) * sizeof(Plugin), 0));
    std::copy(known.begin(), known.end(), grown);
    grown[known.size()] = plugin;
    fill_defaults(grown[known.size()]);
    std::free(known.data());
    registry.*kind<Plugin>::array = grown;
    ++(registry.*kind<Plugin>::count);
    check_operations(registry, plugin);
}

template void register_plugin(plugin_registry&, const input_plugin&);
template void register_plugin(plugin_registry&, const export_plugin&);
template void register_plugin(plugin_registry&, const filter_plugin&);
template void register_plugin(plugin_registry&, const process_plugin&);

uint16_t reserve_record_space(plugin_registry& registry, uint16_t bytes) {
    const uint32_t offset = FLOW_RECORD_BASE_SIZE + uint32_t{registry.extension_length};
    if (offset + bytes > std::numeric_limits<uint16_t>::max())
        die(exit_config, "Flow record too large: %u bytes", offset + bytes);
    registry.extension_length = static_cast<uint16_t>(registry.extension_length + bytes);
    return static_cast<uint16_t>(offset);
}

}  // namespace kestrel

using kestrel::register_plugin;

void add_input_plugin(plugin_registry* registry, plugin_desc_function* desc,
                      input_init_function* init, input_sampling_function* sampling,
                      input_getter_init_function* getter_init, input_flow_function* get_flow,
                      input_final_flow_function* get_final_flow, packet_function* get_packet,
                      input_flow_packet_function* get_flow_packet) {
    register_plugin(*registry, input_plugin{.desc = desc,
                                            .init = init,
                                            .getter_init = getter_init,
                                            .sampling = sampling,
                                            .get_packet = get_packet,
                                            .get_flow = get_flow,
                                            .get_flow_packet = get_flow_packet,
                                            .get_final_flow = get_final_flow,
                                            .params = nullptr,
                                            .data_offset = 0,
                                            .instance = nullptr});
}

void add_export_plugin(plugin_registry* registry, plugin_desc_function* desc,
                       export_init_function* init, export_export_function* export_record,
                       export_flush_function* flush) {
    register_plugin(*registry, export_plugin{.desc = desc,
                                             .init = init,
                                             .export_record = export_record,
                                             .flush = flush,
                                             .params = nullptr,
                                             .instance = nullptr});
}

void add_filter_plugin(plugin_registry* registry, plugin_desc_function* desc,
                       filter_init_function* init, filter_filter_function* filter) {
    register_plugin(
        *registry,
        filter_plugin{
            .desc = desc, .init = init, .filter = filter, .params = nullptr, .instance = nullptr});
}

void add_process_plugin(plugin_registry* registry, plugin_desc_function* desc,
                        process_init_function* init, process_getter_init_function* getter_init,
                        process_create_function* create, process_update_function* update,
                        process_release_function* release) {
    register_plugin(*registry, process_plugin{.desc = desc,
                                              .init = init,
                                              .getter_init = getter_init,
                                              .create = create,
                                              .update = update,
                                              .release = release,
                                              .data_offset = 0,
                                              .params = nullptr,
                                              .instance = nullptr});
}

void print_plugins(const plugin_registry* registry) {
    kestrel::print_kind<input_plugin>(*registry);
    if (registry->process_count > 0)
        kestrel::print_kind<process_plugin>(*registry);
    kestrel::print_kind<filter_plugin>(*registry);
    kestrel::print_kind<export_plugin>(*registry);
    std::exit(kestrel::exit_ok);
}
