// The plugins that come with the program, as one table. Main thread, while the program starts;
// never initialises a plugin.
#include "contract/builtins.h"

#include <variant>

#include "contract/operations.h"
#include "contract/plugin_registry.h"
#include "kestrelexp/builtin.h"

namespace kestrel {

namespace {

using builtin = std::variant<input_plugin, export_plugin, filter_plugin>;

constexpr input_plugin packet_input(plugin_desc_function* desc, input_init_function* init,
                                    input_sampling_function* sampling, packet_function* packet) {
    input_plugin plugin{};
    plugin.desc = desc;
    plugin.init = init;
    plugin.sampling = sampling;
    plugin.get_packet = packet;
    return plugin;
}

constexpr export_plugin exporter(plugin_desc_function* desc, export_init_function* init,
                                 export_export_function* export_record,
                                 export_flush_function* flush) {
    return {desc, init, export_record, flush, nullptr, nullptr};
}

constexpr filter_plugin filter(plugin_desc_function* desc, filter_init_function* init,
                               filter_filter_function* test) {
    return {desc, init, test, nullptr, nullptr};
}

constexpr builtin builtins[] = {
    packet_input(input_pcap_desc, input_pcap_init, input_pcap_sampling, input_pcap_packet),
    packet_input(input_rawnetcap_desc, input_rawnetcap_init, input_rawnetcap_sampling,
                 input_rawnetcap_packet),
    exporter(exporter_null_desc, exporter_null_init, exporter_null_export, exporter_null_flush),
    exporter(exporter_nf5_desc, exporter_nf5_init, exporter_nf5_export, exporter_nf5_flush),
    exporter(exporter_nf9_desc, exporter_nf9_init, exporter_nf9_export, exporter_nf9_flush),
    exporter(exporter_ipfix_desc, exporter_ipfix_init, exporter_ipfix_export, exporter_ipfix_flush),
    filter(filter_desc, filter_init, filter_test),
    filter(as_helper_desc, as_helper_init, as_helper_lookup),
    filter(anonymizer_desc, anonymizer_init, anonymizer_process),
};

// What they offer beyond the entry points of their kind.
constexpr plugin_operations input_offer(plugin_desc_function* desc,
                                        input_counters_function* counters,
                                        input_interfaces_function* interfaces) {
    plugin_operations offer{};
    offer.desc = desc;
    offer.counters = counters;
    offer.interfaces = interfaces;
    return offer;
}

constexpr plugin_operations export_offer(plugin_desc_function* desc, export_tend_function* tend) {
    plugin_operations offer{};
    offer.desc = desc;
    offer.tend = tend;
    return offer;
}

constexpr plugin_operations builtin_operations[] = {
    input_offer(input_pcap_desc, input_pcap_counters, input_pcap_interfaces),
    input_offer(input_rawnetcap_desc, input_rawnetcap_counters, nullptr),
    export_offer(exporter_nf9_desc, exporter_nf9_tend),
    export_offer(exporter_ipfix_desc, exporter_ipfix_tend),
};

}  // namespace

void register_builtins(plugin_registry& registry) {
    for (const builtin& row : builtins)
        std::visit([&registry](const auto& plugin) { register_plugin(registry, plugin); }, row);
    for (const plugin_operations& row : builtin_operations)
        keep_operations(registry, row);
}

}  // namespace kestrel
