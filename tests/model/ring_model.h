// A second ring between threads, as bookkeeping alone: which records are where, how many credits
// each side holds, what lies in the two pipes. It never blocks and holds no data but sequence
// numbers. The tests hold the program's temporal storage against it.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

namespace kestrel_model {

class ring_model {
  public:
    explicit ring_model(uint64_t count);

    // Whether a put, or a wait for a free slot, would come back at once.
    bool can_put() const;
    void reserve();
    void put(uint64_t sequence);
    // A get that does not wait.
    std::optional<uint64_t> get();

    uint64_t credits() const { return credits_; }
    uint64_t current_slot() const { return write_index_; }
    uint64_t slot_in_hand() const { return read_index_; }

  private:
    void release();
    void refill();

    uint64_t count_;
    uint64_t batch_;
    // Producer
    uint64_t credits_;
    uint64_t pending_ = 0;
    uint64_t write_index_ = 0;
    // Between
    std::deque<uint64_t> notify_pipe_;
    std::deque<uint64_t> credit_pipe_;
    std::deque<uint64_t> unread_;  // sequence numbers of all slots that were put and not taken
    // Consumer
    bool in_hand_ = false;
    uint64_t available_ = 0;
    uint64_t consumed_ = 0;
    uint64_t read_index_ = 0;
};

}  // namespace kestrel_model
