// What librdkafka tells of itself once a second, as metrics: its queue, and each broker's state and
// round trip. On one thread, the outlet's worker; the first part while the export is initialised.
#pragma once

#include <kestrelexp/metrics.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace kafka {

class statistics {
  public:
    // The metrics get the labels of the export that is being initialised.
    statistics();

    // Takes librdkafka's statistics, an object in JSON. Anything else changes nothing. Returns
    // whether a broker is up.
    bool take(std::string_view text);

    // A new producer begins to count: what comes from now on starts at 0.
    void restart();

  private:
    struct broker {
        metric_cell* cells;
        uint64_t counted[3];  // by this producer, of the counters
    };

    broker* find_broker(int64_t id);

    std::string labels_;
    metric_cell* queue_;
    std::map<int64_t, broker> brokers_;  // by their number in the cluster
};

}  // namespace kafka
