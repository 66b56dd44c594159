#include "base/spinlock.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>

namespace kestrel {
namespace {

constexpr int spins = 2'000;
constexpr int yields = 50;
constexpr useconds_t first_nap_us = 100;
constexpr useconds_t longest_nap_us = 10'000;

}  // namespace

void spinlock::wait(wait_chore* chore, void* context) {
    useconds_t nap_us = first_nap_us;
    for (int round = 0; pthread_spin_trylock(&lock_) != 0; ++round) {
        if (round < spins) {
            __builtin_ia32_pause();
        } else if (round < spins + yields) {
            sched_yield();
        } else {
            if (chore != nullptr)
                chore(context);
            usleep(nap_us);
            nap_us = std::min(2 * nap_us, longest_nap_us);
        }
    }
}

}  // namespace kestrel
