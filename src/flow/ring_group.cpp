#include "flow/ring_group.h"

#include <algorithm>
#include <utility>

#include "base/clock.h"

namespace kestrel {

ring_group::ring_group(std::vector<temporal_storage*> rings) : rings_(std::move(rings)) {
    for (const temporal_storage* ring : rings_)
        waits_.push_back({ring->consumer.notify_read, POLLIN, 0});
    looked_at_ns_.resize(rings_.size());
}

// A ring that has announced nothing is looked at when time is up, so that small batches gather; but
// others that announce all the time must not put that off.
bool ring_group::is_due(size_t ring, int timeout_ms, uint64_t now_ns) const {
    if ((waits_[ring].revents & POLLIN) != 0)
        return true;
    return timeout_ms >= 0 &&
           now_ns - looked_at_ns_[ring] >= static_cast<uint64_t>(timeout_ms) * ns_per_ms;
}

[[gnu::noinline]] void* ring_group::next(int timeout_ms) {
    if (rings_.size() == 1)
        return storage_get(*rings_.front(), timeout_ms);
    for (;;) {
        const bool is_time_up = poll(waits_.data(), waits_.size(), timeout_ms) <= 0;
        const uint64_t now_ns = system_uptime_ns();
        for (size_t n = 1; n <= rings_.size(); ++n) {
            const size_t ring = (current_ + n) % rings_.size();
            if (!is_time_up && !is_due(ring, timeout_ms, now_ns))
                continue;
            looked_at_ns_[ring] = now_ns;
            if (void* slot = storage_get(*rings_[ring], 0)) {
                current_ = ring;
                return slot;
            }
        }
        if (is_time_up)
            return nullptr;
    }
}

bool ring_group::is_flush_taken() const {
    return std::ranges::all_of(rings_, [](const temporal_storage* ring) {
        return storage_taken(*ring) >= storage_flushed(*ring);
    });
}

}  // namespace kestrel
