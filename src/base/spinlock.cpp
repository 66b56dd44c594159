#include "base/spinlock.h"

#include <sched.h>
#include <unistd.h>

namespace kestrel {
namespace {

constexpr int spins = 2'000;
constexpr int yields = 50;
constexpr useconds_t nap_us = 100;

}  // namespace

void spinlock::wait() {
    for (int round = 0; pthread_spin_trylock(&lock_) != 0; ++round) {
        if (round < spins)
            __builtin_ia32_pause();
        else if (round < spins + yields)
            sched_yield();
        else
            usleep(nap_us);
    }
}

}  // namespace kestrel
