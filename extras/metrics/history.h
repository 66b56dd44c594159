// The past of the charts: one sample a second for the last 15 minutes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

namespace metrics {

// What the counters said at one moment.
struct counter_reading {
    double time;  // s since the epoch
    uint64_t packets;
    uint64_t bytes;
    uint64_t flows;
    uint64_t lost_packets;
    uint64_t cache_flows;  // a gauge
};

// Rates are those since the sample before.
struct history_sample {
    double time;  // s since the epoch, at the end of the second
    double packets_per_second;
    double bits_per_second;
    double flows_per_second;
    double lost_packets_per_second;
    uint64_t cache_flows;
};

class history {
  public:
    static constexpr size_t most_samples = size_t{15} * 60;

    // seconds: on a clock that nobody sets, since the last call. The first call gives no sample,
    // and neither does one at the time of the last.
    void add(const counter_reading& reading, double seconds);

    // Oldest first, by time: when the clock is set back, all samples go with it.
    const std::deque<history_sample>& samples() const { return samples_; }

  private:
    void follow_clock_back(double time, double seconds);

    std::optional<counter_reading> last_;
    std::deque<history_sample> samples_;
};

}  // namespace metrics
