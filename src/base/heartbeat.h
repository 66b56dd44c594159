// Signs of life of a thread, for who watches over the program: beats of its loop, and waits that
// are known to be long and to have an end (for a collector, say), which count as life. Beating
// costs a plain store, a known wait two.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace kestrel {

// Beaten by one thread, looked at by any. Relaxed accesses suffice: no data hangs on it.
class heartbeat {
  public:
    void beat() { add(beats_, 1); }
    void begin_wait() { add(waits_, 1); }
    void end_wait() { add(waits_, uint32_t{0} - 1); }

    uint64_t beats() const { return beats_.load(std::memory_order_relaxed); }
    bool is_waiting() const { return waits_.load(std::memory_order_relaxed) != 0; }

  private:
    template <typename T>
    static void add(std::atomic<T>& word, std::type_identity_t<T> value) {
        word.store(word.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
    }

    std::atomic<uint64_t> beats_ = 0;
    std::atomic<uint32_t> waits_ = 0;  // of those within each other
};

inline heartbeat record_loop_heartbeat;
// Of the thread that runs; null: nobody watches over it.
inline thread_local heartbeat* own_heartbeat = nullptr;

// As long as it lives, the thread is in a known wait.
class known_wait {
  public:
    known_wait() : heart_(own_heartbeat) {
        if (heart_ != nullptr)
            heart_->begin_wait();
    }
    ~known_wait() {
        if (heart_ != nullptr)
            heart_->end_wait();
    }
    known_wait(const known_wait&) = delete;
    known_wait& operator=(const known_wait&) = delete;

  private:
    heartbeat* heart_;
};

}  // namespace kestrel
