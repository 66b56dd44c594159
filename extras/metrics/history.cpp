#include "history.h"

namespace metrics {

namespace {

// Counters only grow, but the sum of several that are read while they grow may be a moment late.
double rate(uint64_t before, uint64_t now, double seconds) {
    return now > before ? static_cast<double>(now - before) / seconds : 0.0;
}

}  // namespace

// Samples keep their distance to now, whatever the clock says.
void history::follow_clock_back(double time, double seconds) {
    if (samples_.empty() || time > samples_.back().time)
        return;
    const double step = time - seconds - samples_.back().time;
    for (history_sample& one : samples_)
        one.time += step;
}

void history::add(const counter_reading& reading, double seconds) {
    if (!last_) {
        last_ = reading;
        return;
    }
    if (seconds <= 0)
        return;
    follow_clock_back(reading.time, seconds);
    samples_.push_back({
        .time = reading.time,
        .packets_per_second = rate(last_->packets, reading.packets, seconds),
        .bits_per_second = 8 * rate(last_->bytes, reading.bytes, seconds),
        .flows_per_second = rate(last_->flows, reading.flows, seconds),
        .lost_packets_per_second = rate(last_->lost_packets, reading.lost_packets, seconds),
        .cache_flows = reading.cache_flows,
    });
    if (samples_.size() > most_samples)
        samples_.pop_front();
    last_ = reading;
}

}  // namespace metrics
