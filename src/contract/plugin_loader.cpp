// Opens plugin shared objects: one table per kind says which symbols are looked up, where they go,
// and what is said when one is missing. Main thread, while the program starts. Never closes an
// object and never initialises a plugin.
#include "contract/plugin_loader.h"

#include <dirent.h>
#include <dlfcn.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>

#include "base/log.h"
#include "contract/operations.h"
#include "contract/plugin_registry.h"

namespace kestrel {

namespace {

// One step of taking a plugin out of an object; the steps of a kind run in table order, and the
// first fault ends the program.
struct load_step {
    enum kind {
        required,  // looks the symbol up and stores it; without it, the fault follows the path
        optional,  // looks the symbol up and stores it
        no_space,  // where the operation in this place is there, data_size has to be 0: else the
                   // fault
    };
    kind what;
    size_t slot;  // the operation's place in the plugin record
    const char* symbol;
    const char* fault;
};

constexpr const char* no_description = ", plugin description not found";

template <typename Plugin>
constexpr std::span<const load_step> load_steps;

constexpr load_step input_steps[] = {
    {load_step::required, offsetof(input_plugin, desc), "plugin_input_desc", no_description},
    {load_step::required, offsetof(input_plugin, init), "plugin_input_init",
     " no input init found."},
    {load_step::optional, offsetof(input_plugin, getter_init), "plugin_input_getter_init", ""},
    {load_step::optional, offsetof(input_plugin, sampling), "plugin_input_sampling", ""},
    {load_step::optional, offsetof(input_plugin, get_packet), "plugin_input_get_packet", ""},
    {load_step::optional, offsetof(input_plugin, get_flow), "plugin_input_get_flow", ""},
    {load_step::optional, offsetof(input_plugin, get_flow_packet), "plugin_input_get_flow_packet",
     ""},
    {load_step::optional, offsetof(input_plugin, get_final_flow), "plugin_input_get_final_flow",
     ""},
    {load_step::no_space, offsetof(input_plugin, get_packet), "",
     "Packet input plugins are not allowed to have data space in flow record"},
};
template <>
constexpr std::span<const load_step> load_steps<input_plugin>{input_steps};

constexpr load_step export_steps[] = {
    {load_step::required, offsetof(export_plugin, desc), "plugin_export_desc", no_description},
    {load_step::no_space, offsetof(export_plugin, desc), "",
     "Export plugins are not allowed to have data space in flow record."},
    {load_step::required, offsetof(export_plugin, init), "plugin_export_init",
     ", no export init found."},
    {load_step::required, offsetof(export_plugin, export_record), "plugin_export_export",
     ", no export function found."},
    {load_step::required, offsetof(export_plugin, flush), "plugin_export_flush",
     ", no flush function found."},
};
template <>
constexpr std::span<const load_step> load_steps<export_plugin>{export_steps};

constexpr load_step filter_steps[] = {
    {load_step::required, offsetof(filter_plugin, desc), "plugin_filter_desc", no_description},
    {load_step::no_space, offsetof(filter_plugin, desc), "",
     "Filter plugins are not allowed to have data space in flow record."},
    {load_step::required, offsetof(filter_plugin, init), "plugin_filter_init",
     ", no filter init found."},
    {load_step::required, offsetof(filter_plugin, filter), "plugin_filter_filter",
     ", no filter function found."},
};
template <>
constexpr std::span<const load_step> load_steps<filter_plugin>{filter_steps};

// A missing create is reported as a missing init function: people grep for the text, so it stays.
constexpr load_step process_steps[] = {
    {load_step::required, offsetof(process_plugin, desc), "plugin_process_desc", no_description},
    {load_step::required, offsetof(process_plugin, init), "plugin_process_init",
     ", no process init found."},
    {load_step::required, offsetof(process_plugin, create), "plugin_process_create",
     ", no init function found."},
    {load_step::required, offsetof(process_plugin, update), "plugin_process_update",
     ", no update function found."},
    {load_step::required, offsetof(process_plugin, release), "plugin_process_release",
     ", no release function found."},
    {load_step::optional, offsetof(process_plugin, getter_init), "plugin_process_getter_init", ""},
};
template <>
constexpr std::span<const load_step> load_steps<process_plugin>{process_steps};

// A description without a name is as good as none.
bool is_named(const plugin_description* description) {
    return description != nullptr && description->name != nullptr;
}

template <typename Plugin>
void load_kind(void* object, const char* path, plugin_registry& registry) {
    static_assert(std::is_trivially_copyable_v<Plugin>, "operations are stored by offset");
    Plugin plugin{};
    char* const slots = reinterpret_cast<char*>(&plugin);
    plugin_description description{};  // the first step of every kind asks for it

    for (const load_step& step : load_steps<Plugin>) {
        void* operation;
        if (step.what == load_step::no_space) {
            std::memcpy(&operation, slots + step.slot, sizeof operation);
            if (operation != nullptr && description.data_size != 0)
                die(exit_config, "%s", step.fault);
            continue;
        }
        operation = dlsym(object, step.symbol);
        if (operation == nullptr && step.what == load_step::required)
            die(exit_config, "Plugin: %s%s", path, step.fault);
        std::memcpy(slots + step.slot, &operation, sizeof operation);
        if (step.slot != offsetof(Plugin, desc))
            continue;
        if (!is_named(plugin.desc()))
            die(exit_config, "Plugin: %s%s", path, step.fault);
        description = *plugin.desc();
    }
    load_operations(object, path, kind<Plugin>::bit, &plugin, plugin.desc, registry);
    register_plugin(registry, plugin);
}

struct kind_row {
    int32_t bit;  // in plugin_type
    void (*load)(void* object, const char* path, plugin_registry& registry);
};

// Filters go before process plugins, so that an object of several kinds always reports the same
// fault first.
constexpr kind_row kind_rows[] = {
    {kind<input_plugin>::bit, load_kind<input_plugin>},
    {kind<export_plugin>::bit, load_kind<export_plugin>},
    {kind<filter_plugin>::bit, load_kind<filter_plugin>},
    {kind<process_plugin>::bit, load_kind<process_plugin>},
};

// A plugin that says nothing was built for the first version.
void check_version(void* object, const char* path) {
    const void* const symbol = dlsym(object, "plugin_contract_version");
    if (symbol == nullptr)
        return;
    const int32_t version = *static_cast<const int32_t*>(symbol);
    if (version > PLUGIN_CONTRACT_VERSION)
        die(exit_config, "Plugin: %s was built for contract version %i, this program has %i", path,
            version, int{PLUGIN_CONTRACT_VERSION});
}

int is_visible(const dirent* entry) {
    return entry->d_name[0] != '.';
}

}  // namespace

void load_plugin_directory(const char* prefix, const char* directory, plugin_registry& registry) {
    const std::string path = std::string(prefix) + directory;
    const int count = scandir(path.c_str(), &registry.directory_list, is_visible, alphasort);
    if (count < 0)
        return;
    for (int i = 0; i < count; ++i) {
        // The directory brings its own slash; the doubled one shows in messages.
        const std::string file =
            std::string(prefix) + "/" + directory + "/" + registry.directory_list[i]->d_name;
        add_plugin(file.c_str(), &registry);
        std::free(registry.directory_list[i]);
    }
    std::free(registry.directory_list);
    registry.directory_list = nullptr;
}

}  // namespace kestrel

void add_plugin(const char* path, plugin_registry* registry) {
    void* const object = dlopen(path, RTLD_NOW);
    if (object == nullptr) {
        const char* const reason = dlerror();
        verbose_msg(-1, "Unable to open plugin: %s", path);
        verbose_msg(0, "%s", reason);
        return;
    }
    verbose_msg(2, "Plugin: %s opened", path);

    const void* const type_symbol = dlsym(object, "plugin_type");
    if (type_symbol == nullptr)
        kestrel::die(kestrel::exit_config, "Plugin: %s, plugin type not found", path);
    const int32_t type = *static_cast<const int32_t*>(type_symbol);
    verbose_msg(3, "plugin type found. type: %i", type);
    kestrel::check_version(object, path);

    for (const kestrel::kind_row& row : kestrel::kind_rows)
        if ((type & row.bit) != 0)
            row.load(object, path, *registry);
}
