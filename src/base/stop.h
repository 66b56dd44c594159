// The wish to end the program, for whatever waits below the engine: a long wait ends when it is
// there. The signal handler makes it; nothing but a test takes it back.
#pragma once

#include <atomic>

namespace kestrel {

// Written on the main thread, read by any. Relaxed accesses suffice: no data hangs on it.
inline std::atomic<bool> stop_request = false;
static_assert(std::atomic<bool>::is_always_lock_free);

// May be called in a signal handler.
inline void request_stop() {
    stop_request.store(true, std::memory_order_relaxed);
}

inline bool stop_requested() {
    return stop_request.load(std::memory_order_relaxed);
}

}  // namespace kestrel
