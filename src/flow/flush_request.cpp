#include "flow/flush_request.h"

#include <atomic>

#include "kestrelexp/flow.h"

uint32_t queue_force_flush = 0;

namespace kestrel {
namespace {

std::atomic_ref<uint32_t> flag() {
    return std::atomic_ref(queue_force_flush);
}

// The requests so far, and how many of them a flush has served. A requester raises the first before
// it sets the flag; the server clears the flag before it raises the second. So whoever finds the
// flag clear and both equal has no request of its own open.
std::atomic<uint32_t> requested = 0;
std::atomic<uint32_t> served = 0;
static_assert(std::atomic<uint32_t>::is_always_lock_free, "a signal handler requests flushes");

}  // namespace

void request_flush() {
    requested.fetch_add(1, std::memory_order_seq_cst);
    flag().store(1, std::memory_order_seq_cst);
}

bool is_flush_pending() {
    return flag().load(std::memory_order_seq_cst) != 0 ||
           served.load(std::memory_order_seq_cst) != requested.load(std::memory_order_seq_cst);
}

uint32_t begin_flush() {
    const uint32_t begun = requested.load(std::memory_order_seq_cst);
    flag().store(1, std::memory_order_seq_cst);
    return begun;
}

void end_flush(uint32_t begun) {
    flag().store(0, std::memory_order_seq_cst);
    served.store(begun, std::memory_order_seq_cst);
}

}  // namespace kestrel
