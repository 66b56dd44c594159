// The ring of an outlet: whole messages in the order in which they were put, each in one piece. One
// thread puts, one takes; neither waits for the other. A message that was taken is held until it is
// ended, in any order; its place is free when those before it are ended as well.
//
//   free ..... held ..... waiting ..... free
//        first_     next_         head_
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kestrelexp/outlet.h"

namespace kestrel {

class message_ring {
  public:
    // capacity: bytes; rounded up to a multiple of 64.
    explicit message_ring(uint64_t capacity);
    ~message_ring();
    message_ring(const message_ring&) = delete;
    message_ring& operator=(const message_ring&) = delete;

    // Bytes that a message of so many takes, beside what the end of the ring may waste.
    static uint64_t size_of(uint32_t length) { return head_size + (uint64_t{length} + 7) / 8 * 8; }

    // Copies the message. Returns whether it fitted. By the thread that puts.
    bool put(const outlet_message& message);

    // By the thread that takes:
    // The oldest message that is neither held nor ended; null: none.
    outlet_message* waiting();
    // Holds the one that waiting() returns.
    void hold() { next_ += size_of(waiting()->length); }
    // The oldest message that is held; null: none.
    outlet_message* held();
    // Ends one that is held.
    void end(outlet_message* message);
    // All that are held wait again.
    void unhold() { next_ = first_.load(std::memory_order_relaxed); }
    bool is_empty() const {
        return first_.load(std::memory_order_relaxed) == head_.load(std::memory_order_acquire);
    }

  private:
    struct entry {
        outlet_message message;
        uint64_t is_ended;
    };
    static constexpr uint64_t head_size = sizeof(entry);
    static_assert(head_size == 48);

    uint8_t* place(uint64_t position) const { return memory_ + (position - origin_) % capacity_; }
    // Moves the position over the unused end of the ring, and over what has ended, up to the end
    // given. Returns what is there; null: the end.
    entry* find(uint64_t& position, uint64_t end) const;

    uint64_t capacity_;
    uint8_t* memory_;

    // Positions count bytes from the start of the run. Whoever sees head_ sees the messages before
    // it; whoever sees first_ may write over what is before it. Who takes looks at origin_ only
    // where there are messages, and it changes only while there are none.
    alignas(64) std::atomic<uint64_t> head_ = 0;  // written by who puts
    uint64_t origin_ = 0;  // of who puts: a position at the start of the memory
    alignas(64) std::atomic<uint64_t> first_ = 0;  // written by who takes
    uint64_t next_ = 0;
};

}  // namespace kestrel
