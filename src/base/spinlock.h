// A busy-waiting lock for two threads that hold it for well under a microsecond, as a rule. The
// exceptions (a removal that waits for room in the final storage, a flush) can be long, so a waiter
// that had no luck for a while yields its processor, and sleeps in the end, longer and longer.
#pragma once

#include <pthread.h>

namespace kestrel {

// What a waiter does now and then once it waits for long.
using wait_chore = void(void* context);

class spinlock {
  public:
    spinlock() { pthread_spin_init(&lock_, PTHREAD_PROCESS_PRIVATE); }
    ~spinlock() { pthread_spin_destroy(&lock_); }
    spinlock(const spinlock&) = delete;
    spinlock& operator=(const spinlock&) = delete;

    void lock(wait_chore* chore = nullptr, void* context = nullptr) {
        if (pthread_spin_trylock(&lock_) != 0) [[unlikely]]
            wait(chore, context);
    }
    bool try_lock() { return pthread_spin_trylock(&lock_) == 0; }
    void unlock() { pthread_spin_unlock(&lock_); }

  private:
    void wait(wait_chore* chore, void* context);

    pthread_spinlock_t lock_;
};

}  // namespace kestrel
