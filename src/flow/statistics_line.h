// The operator's line of statistics, every ten seconds: a reader of the flow cache's counters. It
// takes no lock of the cache, so that it goes on while the cache waits for a collector.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>

#include "flow/flow_counters.h"

namespace kestrel {

// What one line tells.
struct cache_report {
    uint64_t packets;  // records
    uint64_t bytes;
    uint64_t flows;  // that left the cache
    uint64_t collisions;
    uint64_t invalid;       // printed, never counted: frames that are no flow do not get there
    uint32_t record_count;  // flows in the cache
};

// Prints the report of elapsed_s seconds at level 0. cpu_ms: processor time of the process in them.
void print_report(const cache_report& report, uint64_t now_s, uint64_t elapsed_s, uint64_t cpu_ms);

// When the next line is due, and where the counters stood at the last one. Any thread may call
// these; they wait for each other, and while a line is written.
class statistics_line {
  public:
    // The caches that it tells of, borrowed for the rest of the run. Before any other thread runs.
    void watch(std::span<const cache_counters> caches) { caches_ = caches; }

    // Times in seconds since the epoch.
    void start(uint64_t now_s);
    void postpone(uint64_t now_s);
    void print_if_due(uint64_t now_s);
    // What has been counted since the last report.
    cache_report take();

  private:
    cache_report take_locked();

    std::span<const cache_counters> caches_;
    std::mutex lock_;
    uint64_t last_s_ = 0;
    // UINT64_MAX: not started. Written under the lock; looked at without it first, as hours of a
    // replay have millions of passes.
    std::atomic<uint64_t> next_s_ = UINT64_MAX;
    uint64_t last_cpu_ms_ = 0;
    cache_report told_{};  // all that was told so far
};

}  // namespace kestrel
