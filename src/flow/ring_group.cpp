#include "flow/ring_group.h"

#include <algorithm>
#include <utility>

namespace kestrel {

ring_group::ring_group(std::vector<temporal_storage*> rings) : rings_(std::move(rings)) {
    for (const temporal_storage* ring : rings_)
        waits_.push_back({ring->consumer.notify_read, POLLIN, 0});
}

// What is there without waiting: of the rings after the current one first. Batches that were not
// announced yet are taken as well.
void* ring_group::look_around() {
    for (size_t n = 1; n <= rings_.size(); ++n) {
        const size_t ring = (current_ + n) % rings_.size();
        if (void* slot = storage_get(*rings_[ring], 0)) {
            current_ = ring;
            return slot;
        }
    }
    return nullptr;
}

[[gnu::noinline]] void* ring_group::next(int timeout_ms) {
    if (rings_.size() == 1)
        return storage_get(*rings_.front(), timeout_ms);
    // A ring without an announced batch is looked at only when time is up, so that small batches
    // gather.
    for (;;) {
        const int announced = poll(waits_.data(), waits_.size(), timeout_ms);
        if (announced <= 0)
            return look_around();
        for (size_t n = 1; n <= rings_.size(); ++n) {
            const size_t ring = (current_ + n) % rings_.size();
            if ((waits_[ring].revents & POLLIN) == 0)
                continue;
            if (void* slot = storage_get(*rings_[ring], 0)) {
                current_ = ring;
                return slot;
            }
        }
    }
}

bool ring_group::is_flush_taken() const {
    return std::ranges::all_of(rings_, [](const temporal_storage* ring) {
        return storage_taken(*ring) >= storage_flushed(*ring);
    });
}

}  // namespace kestrel
