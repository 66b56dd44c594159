// Waiting for room; see patient_queue.h.
#include "patient_queue.h"

#include <kestrelexp/service.h>
#include <poll.h>

#include <ctime>

namespace flow_encoding {
namespace {

constexpr uint64_t ns_per_second = 1'000'000'000;
// Bytes of the ring that a message takes beside its own, at most.
constexpr uint64_t beside = 56;

// The machine's: the clocks of a replay stand still meanwhile.
uint64_t uptime_ns() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // fails for no clock that there is
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second + static_cast<uint64_t>(now.tv_nsec);
}

// Messages that have left the queue, whatever became of them.
uint64_t messages_that_left(const outlet_counts& counts) {
    uint64_t left = 0;
    for (int fate = 0; fate < OUTLET_FATES; ++fate)
        if (fate != OUTLET_QUEUE_FULL)
            left += counts.fates[fate].messages;
    return left;
}

}  // namespace

void patient_queue::open(const outlet_owner& owner, uint64_t capacity, uint32_t drain_s) {
    capacity_ = capacity;
    queue_ = outlet_open(&owner, capacity, drain_s);
}

bool patient_queue::offer(const outlet_message& message) {
    if (timer_is_replay() != 0)
        wait_for_room(message.length);
    return outlet_offer(queue_, &message) != 0;
}

// Half of the ring has room for certain, wherever in it the message comes to lie. An empty one has
// no more to wait for.
bool patient_queue::has_room(uint32_t length, const outlet_counts& counts) const {
    const uint64_t used = counts.queued.bytes + counts.queued.messages * beside;
    return counts.queued.messages == 0 || used + length + beside <= capacity_ / 2;
}

void patient_queue::wait_for_room(uint32_t length) {
    uint64_t since_ns = uptime_ns();
    for (;;) {
        outlet_counts counts;
        outlet_read_counts(queue_, &counts);
        if (has_room(length, counts))
            return;
        const uint64_t now_ns = uptime_ns();
        if (const uint64_t left = messages_that_left(counts); left != left_) {
            left_ = left;
            since_ns = now_ns;
            is_stuck_ = false;
        }
        is_stuck_ = is_stuck_ || now_ns - since_ns >= patience_ns_;
        if (is_stuck_)
            return;
        (void)poll(nullptr, 0, 1);  // ms; a signal ends it early, and does no harm
    }
}

}  // namespace flow_encoding
