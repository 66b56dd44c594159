#include "tests/model/ring_model.h"

#include <cassert>
#include <numeric>

namespace kestrel_model {

ring_model::ring_model(uint64_t count)
    : count_(count), batch_(count < 8 ? 1 : count / 8), credits_(count) {}

bool ring_model::can_put() const {
    return credits_ > 0 ||
           std::accumulate(credit_pipe_.begin(), credit_pipe_.end(), uint64_t{0}) >= batch_;
}

void ring_model::reserve() {
    assert(can_put());
    if (credits_ > 0)
        return;
    while (credits_ < batch_) {
        credits_ += credit_pipe_.front();
        credit_pipe_.pop_front();
    }
}

void ring_model::put(uint64_t sequence) {
    reserve();
    if (pending_ >= batch_) {
        notify_pipe_.push_back(pending_);
        pending_ = 0;
    }
    pending_ += 1;
    credits_ -= 1;
    write_index_ = (write_index_ + 1) % count_;
    unread_.push_back(sequence);
}

std::optional<uint64_t> ring_model::get() {
    release();
    if (available_ == 0)
        refill();
    if (available_ == 0)
        return {};
    available_ -= 1;
    in_hand_ = true;
    const uint64_t sequence = unread_.front();
    unread_.pop_front();
    return sequence;
}

void ring_model::release() {
    if (!in_hand_)
        return;
    in_hand_ = false;
    consumed_ += 1;
    read_index_ = (read_index_ + 1) % count_;
}

void ring_model::refill() {
    if (consumed_ >= batch_) {
        credit_pipe_.push_back(consumed_);
        consumed_ = 0;
    }
    if (!notify_pipe_.empty()) {
        available_ += notify_pipe_.front();
        notify_pipe_.pop_front();
    } else {
        available_ += pending_;
        pending_ = 0;
    }
}

}  // namespace kestrel_model
