#include "engine/loss_report.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

#include "base/clock.h"
#include "base/export_metrics.h"
#include "base/log.h"

namespace kestrel {
namespace {

constexpr std::string_view loss_names[] = {
    "kestrelexp_capture_dropped_packets_total",
    lost_packets_name,
};
constexpr std::string_view wanted[] = {"reason=\"filter\"", "reason=\"sampling\""};

bool is_loss(const metric_sample& sample) {
    const std::string_view labels = sample.labels;
    return std::ranges::find(loss_names, sample.name) != std::end(loss_names) &&
           std::ranges::none_of(wanted,
                                [&](std::string_view label) { return labels.ends_with(label); });
}

size_t series_of(const metric_sample& sample) {
    const std::hash<std::string_view> hash;
    return (hash(sample.name) ^ hash(sample.labels)) | 1;
}

}  // namespace

uint64_t loss_report::growth_of(const metric_sample& sample) {
    const size_t series = series_of(sample);
    for (seen& place : seen_) {
        if (place.series != series && place.series != 0)
            continue;
        place.series = series;
        return sample.value - std::exchange(place.value, sample.value);
    }
    return 0;
}

void loss_report::look_at(const metric_sample& sample, uint64_t elapsed_s) {
    // Most never count anything, and are to take no place.
    if (sample.value == 0 || !is_loss(sample))
        return;
    if (const uint64_t packets = growth_of(sample); packets > 0)
        verbose_msg(0, "Packets lost in the last %lu s: %lu, %s{%s}", elapsed_s, packets,
                    sample.name, sample.labels);
}

void loss_report::say_if_due(uint64_t uptime_ns) {
    const uint64_t elapsed_ns = uptime_ns - last_ns_;
    if (elapsed_ns < period_ns || !verbose(0))
        return;
    last_ns_ = uptime_ns;
    struct visit {
        loss_report* self;
        uint64_t elapsed_s;
    } context{this, elapsed_ns / ns_per_second};
    metrics_snapshot(
        [](void* argument, const metric_sample* sample) {
            auto& [self, elapsed_s] = *static_cast<visit*>(argument);
            self->look_at(*sample, elapsed_s);
        },
        &context);
}

}  // namespace kestrel
