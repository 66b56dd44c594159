#include "flow/frame_ring.h"

#include <cstring>

#include "base/memory.h"

namespace kestrel {

enum class frame_ring::content : uint32_t {
    frame,
    nothing,  // a frame that was not kept
    gap,      // the room at the end of the ring that the next frame did not fit into
};

// What stands before the bytes of a frame.
struct frame_ring::entry {
    uint32_t bytes;  // up to the next entry
    content holds;
    uint32_t captured_length;
    uint32_t header_length;
};

namespace {

constexpr size_t alignment = 16;

constexpr size_t rounded_up(size_t bytes) {
    return (bytes + alignment - 1) & ~(alignment - 1);
}

}  // namespace

frame_ring::frame_ring(size_t bytes)
    : bytes_(static_cast<uint8_t*>(malloc_wrapper(bytes, 1))), size_(bytes) {
    static_assert(sizeof(entry) == alignment);
}

// A frame that is too long for the ring takes the room of its lengths alone.
size_t frame_ring::entry_bytes(const packet_frame& frame) const {
    const size_t whole = sizeof(entry) + rounded_up(frame.captured_length);
    return frame.data != nullptr && whole <= size_ / 4 ? whole : sizeof(entry);
}

// Where an entry of so many bytes begins, when the ring is filled up to `at`: there, or at the
// start of the ring when it would run over its end.
uint64_t frame_ring::start_of(uint64_t at, size_t bytes) const {
    const uint64_t left = size_ - (at & (size_ - 1));
    return bytes <= left ? at : at + left;
}

bool frame_ring::room_for(size_t bytes, uint64_t tail) const {
    const uint64_t head = head_.load(std::memory_order_relaxed);
    return start_of(head, bytes) + bytes - tail <= size_;
}

void frame_ring::write(uint64_t at, const entry& lengths) {
    std::memcpy(bytes_ + (at & (size_ - 1)), &lengths, sizeof lengths);
}

frame_ring::entry frame_ring::read(uint64_t at) const {
    entry lengths;
    std::memcpy(&lengths, bytes_ + (at & (size_ - 1)), sizeof lengths);
    return lengths;
}

void frame_ring::put(const packet_frame& frame) {
    const size_t bytes = entry_bytes(frame);
    uint64_t tail = tail_.load(std::memory_order_acquire);
    while (!room_for(bytes, tail)) {
        tail_.wait(tail, std::memory_order_acquire);
        tail = tail_.load(std::memory_order_acquire);
    }
    const uint64_t head = head_.load(std::memory_order_relaxed);
    const uint64_t start = start_of(head, bytes);
    if (start != head)
        write(head, {static_cast<uint32_t>(start - head), content::gap, 0, 0});
    const bool is_kept = bytes > sizeof(entry);
    write(start, {static_cast<uint32_t>(bytes), is_kept ? content::frame : content::nothing,
                  frame.captured_length, frame.header_length});
    if (is_kept)
        std::memcpy(bytes_ + (start & (size_ - 1)) + sizeof(entry), frame.data,
                    frame.captured_length);
    head_.store(start + bytes, std::memory_order_release);
}

// Where the first frame begins: after the gap at the end of the ring, where there is one.
uint64_t frame_ring::first() const {
    const uint64_t tail = tail_.load(std::memory_order_relaxed);
    const entry lengths = read(tail);
    return lengths.holds == content::gap ? tail + lengths.bytes : tail;
}

packet_frame frame_ring::front() const {
    (void)head_.load(std::memory_order_acquire);  // the frame's bytes are seen after this
    const uint64_t at = first();
    const entry lengths = read(at);
    const uint8_t* const data = bytes_ + (at & (size_ - 1)) + sizeof(entry);
    return {lengths.holds == content::frame ? data : nullptr, lengths.captured_length,
            lengths.header_length};
}

void frame_ring::drop() {
    const uint64_t at = first();
    tail_.store(at + read(at).bytes, std::memory_order_release);
    tail_.notify_one();
}

}  // namespace kestrel
