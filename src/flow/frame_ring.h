// Frames on their way from the reader to the switch thread, beside the records in "parser-xchange":
// for process plugins that look at the packet of each record. Made only when one of them asked.
//
// A byte ring with one producer and one consumer. Frames come out in the order in which they went
// in, one for each slot of the exchange ring. A frame lies in one piece, after its two lengths, so
// it is read in place.
//
// Cost of a packet: one copy of its captured bytes, and two words that cross between the threads.
// The producer waits when the ring is full, so a plugin that is slow slows the reader down, and the
// input loses what it then cannot hold.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "flow/parser.h"

namespace kestrel {

class frame_ring {
  public:
    static constexpr size_t default_bytes = size_t{16} << 20;

    // bytes: a power of two. A frame of more than a quarter of them is not kept: it comes out
    // without its bytes. The memory lives for the whole run.
    explicit frame_ring(size_t bytes = default_bytes);

    // Producer: whether the frame can be put without waiting.
    bool has_room(const packet_frame& frame) const {
        return room_for(entry_bytes(frame), tail_.load(std::memory_order_acquire));
    }
    // Producer: copies a frame into the ring; waits while there is no room.
    void put(const packet_frame& frame);

    // Consumer: whether a frame is there.
    bool has_frame() const {
        return head_.load(std::memory_order_acquire) != tail_.load(std::memory_order_relaxed);
    }
    // Consumer: the frame of the next slot. It has been put; it stays until drop().
    packet_frame front() const;
    // Consumer: gives the room of the front frame back.
    void drop();

  private:
    enum class content : uint32_t;
    struct entry;

    size_t entry_bytes(const packet_frame& frame) const;
    bool room_for(size_t bytes, uint64_t tail) const;
    uint64_t start_of(uint64_t at, size_t bytes) const;
    uint64_t first() const;
    entry read(uint64_t at) const;
    void write(uint64_t at, const entry& lengths);

    uint8_t* bytes_;
    size_t size_;
    // Positions in bytes since the ring was made. Each is stored with release by its own side, so
    // that the other one, which loads it with acquire, finds the bytes written, or done with.
    alignas(128) std::atomic<uint64_t> head_ = 0;  // producer: after the last frame
    alignas(128) std::atomic<uint64_t> tail_ = 0;  // consumer: the first frame
};

}  // namespace kestrel
