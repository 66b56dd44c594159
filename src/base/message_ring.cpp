// The ring of an outlet; see message_ring.h. A message begins with its entry, whose data point
// right after it. Entries lie at multiples of 8. Where a message does not fit before the end of the
// ring, an entry without data, of which the first word alone exists, says that the next one is at
// the start.
#include "base/message_ring.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

#include "base/memory.h"

namespace kestrel {
namespace {

constexpr uint64_t line = 64;

// Not touched yet, so that it takes no more of the machine than messages need.
uint8_t* map_memory(uint64_t size) {
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        out_of_memory("Unable to make the queue of an outlet", size);
    return static_cast<uint8_t*>(memory);
}

bool is_end_mark(const uint8_t* head) {
    const void* data;
    std::memcpy(static_cast<void*>(&data), head, sizeof data);
    return data == nullptr;
}

}  // namespace

static_assert(offsetof(outlet_message, data) == 0);  // there is always room for one word

message_ring::message_ring(uint64_t capacity)
    : capacity_((capacity + line - 1) / line * line), memory_(map_memory(capacity_)) {}

message_ring::~message_ring() {
    (void)munmap(memory_, capacity_);  // fails for bad arguments only
}

bool message_ring::put(const outlet_message& message) {
    uint64_t head = head_.load(std::memory_order_relaxed);
    const uint64_t size = size_of(message.length);
    const uint64_t seen_first = first_.load(std::memory_order_acquire);
    // An empty ring begins anew where its memory was used last and is still in the caches.
    if (seen_first == head)
        origin_ = head;
    const uint64_t left = capacity_ - (head - origin_) % capacity_;
    const uint64_t skipped = size > left ? left : 0;
    const uint64_t wanted = size + skipped;
    if (head + wanted - seen_first > capacity_)
        return false;
    if (skipped > 0)
        std::memset(place(head), 0, sizeof(void*));
    head += skipped;
    uint8_t* const start = place(head);
    auto* const copy = new (start) entry{message, 0};
    copy->message.data = start + head_size;
    copy->message.mark = 0;
    if (message.length > 0)
        std::memcpy(copy->message.data, message.data, message.length);
    head_.store(head + size, std::memory_order_release);
    return true;
}

outlet_message* message_ring::waiting() {
    entry* const found = find(next_, head_.load(std::memory_order_acquire));
    return found != nullptr ? &found->message : nullptr;
}

outlet_message* message_ring::held() {
    uint64_t first = first_.load(std::memory_order_relaxed);
    entry* const found = find(first, next_);
    return found != nullptr ? &found->message : nullptr;
}

void message_ring::end(outlet_message* message) {
    reinterpret_cast<entry*>(message)->is_ended = 1;
    uint64_t first = first_.load(std::memory_order_relaxed);
    (void)find(first, next_);
    first_.store(first, std::memory_order_release);
}

message_ring::entry* message_ring::find(uint64_t& position, uint64_t end) const {
    while (position != end) {
        if (is_end_mark(place(position))) {
            position += capacity_ - (position - origin_) % capacity_;
            continue;
        }
        auto* const found = reinterpret_cast<entry*>(place(position));
        if (found->is_ended == 0)
            return found;
        position += size_of(found->message.length);
    }
    return nullptr;
}

}  // namespace kestrel
