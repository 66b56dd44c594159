#include "export/options_statistics.h"

#include <algorithm>

#include "base/counters.h"
#include "base/export_metrics.h"

namespace kestrel {
namespace {

// Of so many packets: octets are not counted by what becomes of them, so the mean packet of the
// flows stands for each. Inputs of finished flows pass the cache by.
uint64_t mean_octets_of(uint64_t count) {
    const bool is_cached = metrics_sum("kestrelexp_cache_packets_total", "") > 0;
    const char* const octets_name =
        is_cached ? "kestrelexp_cache_bytes_total" : "kestrelexp_capture_bytes_total";
    const char* const packets_name =
        is_cached ? "kestrelexp_cache_packets_total" : "kestrelexp_capture_packets_total";
    const uint64_t packets = metrics_sum(packets_name, "");
    if (packets == 0)
        return 0;
    const double mean =
        static_cast<double>(metrics_sum(octets_name, "")) / static_cast<double>(packets);
    return static_cast<uint64_t>(mean * static_cast<double>(count));
}

// What filters and sampling keep back is counted once for all collectors of an export. In parallel
// it is kept back from each of them.
uint64_t kept_back(const char* name, const std::string& label) {
    const std::string of_export = label.substr(0, label.find(",collector="));
    if (of_export == label || metrics_sum(export_copies_row.name, of_export) == 0)
        return 0;
    return metrics_sum(name, of_export + ",reason=\"filter\"") +
           metrics_sum(name, of_export + ",reason=\"sampling\"");
}

}  // namespace

options_statistics read_statistics(const std::string& label) {
    const auto all = [](const char* name) { return metrics_sum(name, ""); };
    const auto own = [&label](const char* name) { return metrics_sum(name, label); };
    const auto lost = [&label](const char* name) {
        return metrics_sum(name, label) + kept_back(name, label);
    };
    const auto discarded = [](const char* reason) {
        return metrics_sum("kestrelexp_parser_discarded_packets_total", reason);
    };
    // Inputs of finished flows pass the cache by.
    const uint64_t cached =
        all("kestrelexp_cache_removed_flows_total") + all("kestrelexp_cache_flows");
    const uint64_t finished =
        all("kestrelexp_handed_records_total") + all("kestrelexp_rejected_records_total");
    const uint64_t ignored = all("kestrelexp_capture_dropped_packets_total") +
                             discarded("reason=\"truncated\"") + discarded("reason=\"ip_version\"");
    const uint64_t unsent_packets = lost("kestrelexp_export_lost_packets_total");
    return {.sent = {own("kestrelexp_export_bytes_total"), own("kestrelexp_export_messages_total"),
                     own("kestrelexp_export_records_total")},
            .observed = {std::max(cached, finished), ignored},
            .unsent = {lost("kestrelexp_export_lost_records_total"), unsent_packets,
                       mean_octets_of(unsent_packets)}};
}

}  // namespace kestrel
