// Several rings with one consumer thread: takes from all of them with one wait, a batch from each
// in turn. A group of one ring is that ring.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "flow/ring.h"

namespace kestrel {

class ring_group {
  public:
    // At least one ring; borrowed for the rest of the run. Allocates.
    explicit ring_group(std::vector<temporal_storage*> rings);

    // storage_get over all rings: the next slot of any, valid until the next call; null when none
    // came in time. timeout_ms: -1 waits for ever. Each ring is looked at that often at least,
    // however busy the others are.
    void* get(int timeout_ms) {
        if (rings_[current_]->consumer.available > 0) [[likely]]
            return storage_get(*rings_[current_], 0);
        return next(timeout_ms);
    }

    // Whether every slot that the last flush put into any of them was taken.
    bool is_flush_taken() const;

  private:
    void* next(int timeout_ms);
    bool is_due(size_t ring, int timeout_ms, uint64_t now_ns) const;

    std::vector<temporal_storage*> rings_;
    std::vector<pollfd> waits_;           // one for each ring
    std::vector<uint64_t> looked_at_ns_;  // uptime, of each ring
    size_t current_ = 0;
};

}  // namespace kestrel
