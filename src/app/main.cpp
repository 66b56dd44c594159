// Start-up, as a list of named steps in the order in which they run, and then the record loop. All
// of it on the main thread; the remover thread is born with the queue, the flow thread last. A step
// that fails ends the program with its message.
#include <unistd.h>

#include <cstring>
#include <vector>

#include "app/daemon.h"
#include "app/options.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/packet_clock.h"
#include "base/thread.h"
#include "contract/builtins.h"
#include "contract/plugin_loader.h"
#include "contract/plugin_registry.h"
#include "engine/record_loop.h"
#include "engine/replay.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/program.h"
#include "kestrelexp/service.h"
#include "kestrelexp/storage.h"

namespace kestrel {

namespace {

// Inputs that deliver finished flows need no more than a token flow cache.
constexpr int32_t token_queue_size = 5;
constexpr unsigned first_alarm_s = 1;

void set_names(const char* path);
void find_input_clock(const settings& given);
void force_token_queue(run_configuration& run);
temporal_storage* make_final_records(const settings& given);
flow_queue* make_queue(settings& given, temporal_storage* final_records);
flow_switch* make_switch(settings& given, flow_queue* queue);
void build_base_getters(run_configuration& run);
void init_processes(run_configuration& run);
void init_filters(std::vector<filter_plugin>& filters, getter** getters);
void show_getters(const char* title, const getter* table);
void check_exports(const run_configuration& run);
void init_exports(run_configuration& run);
void start_flow_thread(const run_configuration& run, flow_switch* flow_switch);

// Other threads use it until the very end of the process, so it is never taken down.
settings* given;

// Of the chosen input; null for inputs that live on the system's clocks.
input_clock_function* input_clock;

}  // namespace

}  // namespace kestrel

int main(int argc, char** argv) {
    using namespace kestrel;
    set_names(argv[0]);
    install_memory_handler();
    given = make_lifelong<settings>();
    run_configuration& run = given->run;

    signal_handler(0);
    register_builtins(run.registry);
    load_plugin_directory(plugin_prefix, plugin_directory, run.registry);
    parse_options(argc, argv, *given);
    if (run.daemonize != 0)
        daemonize();
    if (given->cpu_mask)
        set_cpu_affinity(*given->cpu_mask);
    find_input_clock(*given);
    force_token_queue(run);
    temporal_storage* const final_records = make_final_records(*given);
    flow_queue* const queue = make_queue(*given, final_records);
    flow_switch* const flow_switch = make_switch(*given, queue);
    build_base_getters(run);
    if (given->user != nullptr)
        drop_privileges(given->user);
    init_processes(run);
    init_filters(run.global_filters, &run.base_getters);
    show_getters("Base Getter", run.base_getters);
    check_exports(run);
    init_exports(run);
    alarm(first_alarm_s);
    verbose_msg(0, "Kestrel OK");
    start_flow_thread(run, flow_switch);

    const unsigned record_size = FLOW_RECORD_BASE_SIZE + run.registry.extension_length;
    // They come back only when a global filter said no: the program just ends.
    if (input_clock != nullptr)
        (void)replay_record_loop(final_records, record_size, run);
    else
        (void)main_record_loop(final_records, record_size, &run);
    return exit_ok;
}

namespace kestrel {

namespace {

input_plugin* chosen_input(const run_configuration& run) {
    return run.input_index < 0 ? nullptr : &run.registry.inputs[run.input_index];
}

bool delivers_final_flows(const run_configuration& run) {
    const input_plugin* const input = chosen_input(run);
    return input != nullptr && input->get_final_flow != nullptr;
}

// A missing text as the messages show it.
const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

void set_names(const char* path) {
    app_name = path;
    const char* const last_slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
    progname = last_slash != nullptr ? last_slash + 1 : path;
}

void find_input_clock(const settings& from) {
    if (const input_plugin* const input = chosen_input(from.run))
        input_clock = input_clock_of(*input);
}

void force_token_queue(run_configuration& run) {
    if (delivers_final_flows(run))
        run.queue_size = token_queue_size;
}

temporal_storage* make_final_records(const settings& from) {
    const run_configuration& run = from.run;
    const uint32_t slots = uint32_t{1} << (run.queue_size - 4);
    const uint32_t stamp_size = input_clock != nullptr ? sizeof(replay_stamp) : 0;
    const uint32_t slot_size =
        FLOW_RECORD_BASE_SIZE + uint32_t{run.registry.extension_length} + stamp_size;
    temporal_storage* const storage =
        temporal_storage_init(slots, slot_size, from.huge_directory, "final-records");
    if (storage == nullptr)
        verbose_msg(-1, "Unable to init xchange space");
    return storage;
}

flow_queue* make_queue(settings& from, temporal_storage* final_records) {
    run_configuration& run = from.run;
    const auto init = input_clock != nullptr ? replay_queue_init : queue_init;
    return init(run.queue_size, run.active_timeout, run.inactive_timeout, final_records,
                from.huge_directory, run.registry.extension_length,
                static_cast<int32_t>(run.processes.size()), run.processes.data());
}

flow_switch* make_switch(settings& from, flow_queue* queue) {
    input_plugin* const input = chosen_input(from.run);
    if (input == nullptr)
        die(exit_config, "Input driver not set");
    struct flow_switch* const made =
        sw_init(queue, from.flow_mask, from.run.registry.process_flag, input);
    if (made == nullptr)
        die(exit_config, "Driver initialization failed");
    made->clock = input_clock;
    if (input_clock != nullptr)
        packet_clock_start(replay_clock(*made));
    return made;
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

void check_exports(const run_configuration& run) {
    if (run.exports.front().name == nullptr)
        die(exit_config, "No export set. Exiting.");
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
        entry.instance = entry.plugin.init(entry.params, entry.getters);
        if (entry.instance == nullptr)
            die(exit_config, "Export: %s ERROR", name);
        verbose_msg(0, "Export: %s OK", name);
    }
}

void start_flow_thread(const run_configuration& run, flow_switch* flow_switch) {
    auto* const body = input_clock != nullptr      ? replay_loop
                       : delivers_final_flows(run) ? plugin_final_flow_loop
                                                   : sw_main_loop;
    if (!start_thread(body, flow_switch))
        die(exit_config, "Unable to create SW thread");
}

}  // namespace

}  // namespace kestrel
