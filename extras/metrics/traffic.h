// What the records that pass are about: the top talkers, ports and protocols of the last minute.
//
// The record loop adds to a bucket; once a second the sampler takes that bucket away and leaves an
// empty one. A bucket is held by whoever took its address out of an atomic word: the record loop
// for the few instructions of an addition, the sampler for as long as it reads. So the record loop
// never waits; the sampler tries again when it comes in the middle of an addition.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <vector>

#include "heavy_hitters.h"
#include "kestrelexp/record.h"

namespace metrics {

struct traffic_totals {
    uint64_t records = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

struct traffic_bucket {
    explicit traffic_bucket(uint64_t seed) : talkers(seed), ports(seed) {}

    void add(const flow_record& record);
    void clear();

    heavy_hitters talkers;  // by source_key
    heavy_hitters ports;    // by service_key
    std::array<uint64_t, 256> protocols{};
    traffic_totals totals;
};

// The source address as a 128-bit number; an IPv4 address is mapped as in RFC 4291 section 2.5.5.2.
hitter_key source_key(const flow_record& record);
// high: protocol; low: the smaller of the two ports, which is that of the service as a rule.
hitter_key service_key(const flow_record& record);
// Whether its protocol has ports.
bool has_ports(const flow_record& record);

class traffic_meter {
  public:
    explicit traffic_meter(uint64_t seed);

    // Record loop only. Never waits, never allocates.
    void add(const flow_record& record) noexcept {
        // Acquire: the bucket may have been cleared by the sampler. Release: the sampler may read
        // it.
        traffic_bucket* const bucket = active_.exchange(nullptr, std::memory_order_acquire);
        bucket->add(record);
        active_.store(bucket, std::memory_order_release);
    }

    // Sampler only: what was added since the last call, valid until the next one.
    const traffic_bucket& take();

  private:
    traffic_bucket first_;
    traffic_bucket second_;
    traffic_bucket* spare_ = &second_;  // the sampler's
    // The bucket that records go to; null while the record loop holds it.
    std::atomic<traffic_bucket*> active_{&first_};
};

// The greatest of a kind, largest first. Of each: bytes <= true number <= bytes + error.
struct top_list {
    std::vector<hitter> entries;
    uint64_t error = 0;
};

struct top_of_minute {
    unsigned seconds = 0;  // how many of them it covers
    traffic_totals totals;
    top_list talkers;
    top_list ports;
    top_list protocols;  // key.low: the protocol; exact
};

// The buckets of the last minute, one a second.
class traffic_minute {
  public:
    static constexpr size_t seconds = 60;
    static constexpr size_t most_entries = 10;

    void add_second(const traffic_bucket& bucket);
    // Worked out once a second at most.
    const top_of_minute& top();

  private:
    struct second {
        std::vector<hitter> talkers, ports, protocols;
        uint64_t talkers_error, ports_error;
        traffic_totals totals;
    };
    std::deque<second> seconds_;
    top_of_minute top_;
    bool is_current_ = true;
};

}  // namespace metrics
