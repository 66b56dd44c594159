// Start-up, as a list of named steps in the order in which they run, and then the record loop. All
// of it on the main thread; the remover thread is born with the queue, the flow thread last. A step
// that fails ends the program with its message.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "app/daemon.h"
#include "app/help.h"
#include "app/options.h"
#include "base/counters.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/observation.h"
#include "base/service_notify.h"
#include "base/thread.h"
#include "contract/builtins.h"
#include "contract/plugin_loader.h"
#include "contract/plugin_registry.h"
#include "engine/engine.h"
#include "engine/housekeeper.h"
#include "engine/signals.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/program.h"
#include "kestrelexp/service.h"
#include "kestrelexp/storage.h"
#include "record/flow_identity.h"

namespace kestrel {

namespace {

constexpr unsigned first_alarm_s = 1;

void set_names(const char* path);
temporal_storage* make_final_records(const settings& settings, const engine& engine);
flow_queue* make_queue(settings& settings, const engine& engine, temporal_storage* final_records);
flow_switch* make_switch(settings& settings, const engine& engine, flow_queue* queue);
void build_base_getters(run_configuration& run);
void init_processes(run_configuration& run);
void init_filters(std::vector<filter_plugin>& filters, getter** getters);
void show_getters(const char* title, const getter* table);
void show_build();
void check_exports(const run_configuration& run);
void init_exports(run_configuration& run);
void start_flow_thread(const engine& engine, flow_switch* flow_switch);

}  // namespace

}  // namespace kestrel

int main(int argc, char** argv) {
    using namespace kestrel;
    keep_standard_descriptors();
    service_notify_start();
    set_names(argv[0]);
    install_memory_handler();
    // Other threads use it until the very end of the process, so it is never taken down.
    auto& settings = *make_lifelong<kestrel::settings>();
    run_configuration& run = settings.run;

    signal_handler(0);
    register_builtins(run.registry);
    load_plugin_directory(plugin_prefix, plugin_directory, run.registry);
    parse_options(argc, argv, settings);
    if (run.daemonize != 0)
        daemonize();
    if (settings.cpu_mask)
        set_cpu_affinity(*settings.cpu_mask);
    const engine& engine = engine_for(run);
    run.queue_size = engine.queue_size(run.queue_size);
    temporal_storage* const final_records = make_final_records(settings, engine);
    flow_queue* const queue = make_queue(settings, engine, final_records);
    flow_switch* const flow_switch = make_switch(settings, engine, queue);
    pass_signals_to(engine);
    build_base_getters(run);
    if (settings.user != nullptr)
        drop_privileges(settings.user);
    init_processes(run);
    init_filters(run.global_filters, &run.base_getters);
    show_getters("Base Getter", run.base_getters);
    check_exports(run);
    init_exports(run);
    show_build();
    alarm(first_alarm_s);
    verbose_msg(0, "Kestrel OK");
    start_flow_thread(engine, flow_switch);
    start_housekeeper(*flow_switch);

    const unsigned record_size = FLOW_RECORD_BASE_SIZE + run.registry.extension_length;
    // It comes back only when a global filter said no: the program just ends.
    (void)engine.record_loop(final_records, record_size, &run);
    return exit_ok;
}

namespace kestrel {

namespace {

// A missing text as the messages show it.
const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

void set_names(const char* path) {
    app_name = path;
    const char* const last_slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
    progname = last_slash != nullptr ? last_slash + 1 : path;
}

temporal_storage* make_final_records(const settings& settings, const engine& engine) {
    const run_configuration& run = settings.run;
    const uint32_t slots = uint32_t{1} << (run.queue_size - 4);
    const uint32_t slot_size =
        FLOW_RECORD_BASE_SIZE + uint32_t{run.registry.extension_length} + engine.slot_extra;
    temporal_storage* const storage =
        temporal_storage_init(slots, slot_size, settings.huge_directory, "final-records");
    if (storage == nullptr)
        verbose_msg(-1, "Unable to init xchange space");
    return storage;
}

flow_queue* make_queue(settings& settings, const engine& engine, temporal_storage* final_records) {
    run_configuration& run = settings.run;
    return engine.make_queue(run.queue_size, run.active_timeout, run.inactive_timeout,
                             final_records, settings.huge_directory, run.registry.extension_length,
                             static_cast<int32_t>(run.processes.size()), run.processes.data());
}

flow_switch* make_switch(settings& settings, const engine& engine, flow_queue* queue) {
    run_configuration& run = settings.run;
    input_plugin* const input = chosen_input(run);
    if (input == nullptr)
        die(exit_config, "Input driver not set");
    const metrics_label_scope label(metric_label("input", input->desc()->name));
    flow_identity_set_mask(settings.flow_mask);
    struct flow_switch* const flow_switch =
        engine.make_switch(queue, settings.flow_mask, run.registry.process_flag, input);
    if (flow_switch == nullptr)
        die(exit_config, "Driver initialization failed");
    run.input_switch = flow_switch;
    const plugin_operations& operations = operations_of(run.registry, input->desc);
    switch_take_operations(*flow_switch, operations);
    observe_input(*flow_switch, *input, operations);
    engine.prepare(*flow_switch, run);
    return flow_switch;
}

void build_base_getters(run_configuration& run) {
    run.base_getters = getter_base_init();
    const input_plugin* const input = chosen_input(run);
    if (input->getter_init != nullptr)
        input->getter_init(input->instance, &run.base_getters);
}

void init_processes(run_configuration& run) {
    for (process_plugin& process : run.processes) {
        process.instance = process.init(process.params, process.data_offset);
        if (process.instance == nullptr)
            die(exit_config, "Unable to init plugin: %s with args: %s", process.desc()->name,
                shown(process.params));
        if (process.getter_init != nullptr)
            process.getter_init(process.instance, &run.base_getters, &process);
    }
}

void init_filters(std::vector<filter_plugin>& filters, getter** getters) {
    for (filter_plugin& filter : filters) {
        filter.instance = filter.init(filter.params, getters);
        if (filter.instance == nullptr)
            die(exit_config, "Unable to filter plugin: %s with args: %s", filter.desc()->name,
                shown(filter.params));
    }
}

void show_getters(const char* title, const getter* table) {
    for (; table != nullptr && table->name != nullptr; ++table)
        verbose_msg(1, "%s: %s - %i", title, table->name, static_cast<int>(table->length));
}

void show_build() {
    constexpr metric_row row = {"kestrelexp_build_info", "The version of the program that runs.",
                                nullptr, METRIC_GAUGE};
    metric_set(metrics_register(&row, 1, metric_label("version", program_version).c_str()), 1);
}

void check_exports(const run_configuration& run) {
    if (run.exports.front().name == nullptr)
        die(exit_config, "No export set. Exiting.");
}

// A number that was given for an export stays in the records for those after it.
export_place place_of(const run_configuration& run, const export_entry& entry) {
    const auto last_given = [&](uint16_t export_entry::*number) {
        int32_t given = -1;
        for (const export_entry* each = run.exports.data(); each <= &entry; ++each)
            if (each->*number != SNMP_INTERFACE_UNSET)
                given = each->*number;
        return given;
    };
    return {.position = static_cast<uint32_t>(&entry - run.exports.data()),
            .sampling_rate = static_cast<uint32_t>(entry.sampling_rate),
            .input_interface = last_given(&export_entry::snmp_input_if),
            .output_interface = last_given(&export_entry::snmp_output_if)};
}

void init_exports(run_configuration& run) {
    for (export_entry& entry : run.exports) {
        getter_copy_list(&entry.getters, run.base_getters);
        init_filters(entry.filters, &entry.getters);
        show_getters("Getter", entry.getters);

        const char* const name = entry.name != nullptr ? entry.name : "";
        const export_plugin* const plugin = find_by_name<export_plugin>(run.registry, name);
        if (plugin == nullptr)
            die(exit_unknown_export, "Unknown export type: %s", name);
        entry.plugin = *plugin;
        entry.label = metric_label(
            "export", std::string(name) + '-' + std::to_string(&entry - run.exports.data()));
        entry.tend = operations_of(run.registry, plugin->desc).tend;
        const metrics_label_scope label(entry.label);
        const export_place_scope place(place_of(run, entry));
        entry.instance = entry.plugin.init(entry.params, entry.getters);
        if (entry.instance == nullptr)
            die(exit_config, "Export: %s ERROR", name);
        verbose_msg(0, "Export: %s OK", name);
    }
}

void start_flow_thread(const engine& engine, flow_switch* flow_switch) {
    if (!start_thread(engine.flow_thread, flow_switch))
        die(exit_config, "Unable to create SW thread");
}

}  // namespace

}  // namespace kestrel
