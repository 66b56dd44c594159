#include "exposition.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "kestrelexp/metrics.h"

namespace metrics {

namespace {

struct unit_row {
    std::string_view micro_end;
    std::string_view base_end;
};
constexpr unit_row unit_rows[] = {{"_microseconds_total", "_seconds_total"},
                                  {"_microseconds", "_seconds"}};
constexpr double micro_per_base = 1e6;

prometheus::MetricType type_of(bool is_counter) {
    return is_counter ? prometheus::MetricType::Counter : prometheus::MetricType::Gauge;
}

prometheus::ClientMetric metric_of(bool is_counter, double value) {
    prometheus::ClientMetric metric;
    if (is_counter)
        metric.counter.value = value;
    else
        metric.gauge.value = value;
    return metric;
}

// Texts come from plugins and may hold any bytes; with one that is no UTF-8, Prometheus would take
// none of the metrics.
std::string utf8_of(const std::string& text) {
    using nlohmann::json;
    const std::string quoted = json(text).dump(-1, ' ', false, json::error_handler_t::replace);
    return json::parse(quoted).get<std::string>();
}

struct shown {
    std::string name;
    double value;
};

shown in_base_units(const reading& one) {
    const auto value = static_cast<double>(one.value);
    for (const unit_row& row : unit_rows)
        if (one.name.ends_with(row.micro_end)) {
            const size_t stem = one.name.size() - row.micro_end.size();
            return {one.name.substr(0, stem) + std::string(row.base_end), value / micro_per_base};
        }
    return {one.name, value};
}

}  // namespace

std::string exposition_text(const reading_list& list, const std::vector<process_reading>& process) {
    std::vector<prometheus::MetricFamily> families;
    for (const reading& one : list) {
        const bool is_counter = one.type == METRIC_COUNTER;
        shown as = in_base_units(one);
        if (families.empty() || families.back().name != as.name)
            families.push_back({std::move(as.name), utf8_of(one.help), type_of(is_counter), {}});
        prometheus::ClientMetric metric = metric_of(is_counter, as.value);
        for (const label& each : one.labels)
            metric.label.push_back({each.name, utf8_of(each.value)});
        families.back().metric.push_back(std::move(metric));
    }
    for (const process_reading& one : process)
        families.push_back(
            {one.name, one.help, type_of(one.is_counter), {metric_of(one.is_counter, one.value)}});
    std::ostringstream text;
    prometheus::TextSerializer{}.Serialize(text, families);
    return std::move(text).str();
}

}  // namespace metrics
