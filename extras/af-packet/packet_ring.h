// One packet socket with its ring (packet(7), TPACKET_V3): how it comes to be, the walk over its
// blocks, its counts. Frames are handed on where they lie. Knows one interface, by its index.
//
// The kernel fills block after block and hands each over when it is full or block_timeout_ms old; a
// block goes back to the kernel at give_back(), as a whole. One thread at a time; attach_filter,
// which touches nothing else, may come from another one.
#pragma once

#include <cstdint>

#include "frame.h"
#include "socket_filter.h"

namespace af_packet {

// Why something cannot be done; errno has the rest.
enum class ring_fault : uint8_t {
    none,
    no_right,
    no_memory,
    no_interface,
    no_group,
    no_program,
    other
};

class packet_ring {
  public:
    static constexpr uint32_t block_timeout_ms = 8;
    static constexpr int new_group = -1;

    packet_ring() = default;
    ~packet_ring();
    packet_ring(const packet_ring&) = delete;
    packet_ring& operator=(const packet_ring&) = delete;

    // Makes the socket and its ring, of ring_bytes or a little less. It takes no frame.
    ring_fault open(uint64_t ring_bytes, uint32_t snap_bytes);
    // Chooses the interface. Again for another one, as long as the socket has joined no group.
    ring_fault bind(int index, bool is_promiscuous);
    // Shares the frames of the interface with the other sockets of the group, by flow hash. Returns
    // the number of the group that was joined (or made: new_group), or -1.
    int join(int group);
    // From now on the socket takes what the program takes; sockets that were just opened or are to
    // be silent have take_nothing().
    ring_fault attach_filter(const filter_program& program) const;
    static filter_program take_nothing();
    // The interface is no longer asked for the frames that are for others.
    void leave(int index) const;

    int descriptor() const { return descriptor_; }

    // Stores at most limit frames and returns how many. They stay until give_back().
    uint32_t take(input_frame* frames, uint32_t limit, const frame_limits& limits,
                  uint64_t& joined);
    // Hands back the blocks whose frames were all taken.
    void give_back();

    // Blocks walked up to their end so far, and what the ring is made of.
    uint64_t blocks() const { return blocks_; }
    uint32_t block_bytes() const { return block_bytes_; }
    uint32_t block_count() const { return block_count_; }

    // Asks the kernel for what it has counted since the last time.
    void count();
    uint64_t dropped() const { return dropped_; }
    uint64_t taken() const { return taken_; }
    // Frames in the ring at the last count().
    uint64_t unread() const { return received_ - dropped_ - taken_; }

    // The error that the socket reports, which is over then: ENETDOWN when the interface went down.
    int take_error() const;

  private:
    ring_fault map(uint64_t ring_bytes, uint32_t snap_bytes);
    bool enter_block();
    uint8_t* block(uint32_t number) const { return memory_ + uint64_t{number} * block_bytes_; }

    int descriptor_ = -1;
    uint8_t* memory_ = nullptr;
    uint32_t block_bytes_ = 0;
    uint32_t block_count_ = 0;
    uint32_t block_ = 0;       // the one that is walked, or comes next
    uint32_t held_ = 0;        // blocks before it that were walked and not handed back
    uint32_t left_ = 0;        // frames of it that are left
    uint8_t* next_ = nullptr;  // of them
    uint64_t received_ = 0;    // with those that were dropped
    uint64_t dropped_ = 0;
    uint64_t taken_ = 0;
    uint64_t blocks_ = 0;
};

}  // namespace af_packet
