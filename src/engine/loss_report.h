// A word about lost packets while the program runs: one line in ten seconds for each counter of
// losses that has grown, with the number. What the operator asked to leave out (filters, sampling)
// is no loss. Housekeeper thread only; allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "kestrelexp/metrics.h"

namespace kestrel {

class loss_report {
  public:
    static constexpr uint64_t period_ns = 10'000'000'000;

    explicit loss_report(uint64_t uptime_ns) : last_ns_(uptime_ns) {}

    // Says what has been lost since the last time, at level 0, when that is a period ago.
    void say_if_due(uint64_t uptime_ns);

  private:
    struct seen {
        size_t series;  // hash of name and labels; 0: free
        uint64_t value;
    };

    void look_at(const metric_sample& sample, uint64_t elapsed_s);
    uint64_t growth_of(const metric_sample& sample);

    uint64_t last_ns_;
    std::array<seen, 128> seen_{};  // of those above 0; more are left out
};

}  // namespace kestrel
