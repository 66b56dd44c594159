// The keys of the greatest weight among all that are added, in memory of fixed size: a table of
// counters that is cut back whenever it is full (Misra and Gries, 1982, with the cut at the
// median). One thread at a time; allocates nothing but its result.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace metrics {

struct hitter_key {
    uint64_t high;
    uint64_t low;

    bool operator==(const hitter_key& other) const {
        return high == other.high && low == other.low;
    }
    bool operator<(const hitter_key& other) const {
        return high != other.high ? high < other.high : low < other.low;
    }
};

struct hitter {
    hitter_key key;
    uint64_t weight;  // 0: an empty slot
};

// Of each key: weight <= true weight <= weight + error. A key that is not there weighs at most
// error. error <= total / (most_keys / 2), and 0 as long as there are fewer than most_keys keys.
//
// Cost of add: one probe of a table of 24 KiB; a cut of some microseconds after every most_keys / 2
// new keys at the earliest.
class heavy_hitters {
  public:
    static constexpr size_t most_keys = 512;

    // seed: a number that senders of traffic do not know, so that they cannot choose keys of one
    // slot.
    explicit heavy_hitters(uint64_t seed) : seed_(seed) {}

    void add(const hitter_key& key, uint64_t weight);
    void clear();

    uint64_t error() const { return error_; }
    // In no order.
    std::vector<hitter> list() const;

  private:
    static constexpr size_t slot_count = 2 * most_keys;  // a power of two

    hitter& slot_of(const hitter_key& key);
    void cut();

    std::array<hitter, slot_count> slots_{};
    std::array<hitter, most_keys> kept_{};  // while the table is cut
    size_t count_ = 0;
    uint64_t error_ = 0;
    uint64_t seed_;
};

}  // namespace metrics
