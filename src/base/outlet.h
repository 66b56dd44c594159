// What the program itself does with outlets (kestrelexp/outlet.h): closing them, and running them
// by hand in tests.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "base/message_ring.h"
#include "base/outlet_account.h"
#include "kestrelexp/outlet.h"

struct outlet {
    outlet(const outlet_owner& with, uint64_t capacity, uint64_t drain)
        : owner(with), ring(capacity), drain_ns(drain) {}

    const outlet_owner owner;
    kestrel::message_ring ring;
    const kestrel::outlet_account account;
    const uint64_t drain_ns;
    int wake = -1;  // an eventfd, on which the worker sleeps

    // Whoever turns it from true to false, by an exchange, wakes the worker. An exchange on both
    // sides: the later one sees what the other side did before its own.
    std::atomic<bool> is_asleep = false;
    // When the drain is over (system_uptime_ns); 0: the program runs. Written once, with release,
    // by the thread that offers, after the last offer.
    std::atomic<uint64_t> drained_ns = 0;
    std::atomic<bool> is_over = false;  // by the worker, with release, as the last that it does

    // At the end of the ring where messages are taken. The worker has it for moments only, never
    // while it runs its owner's functions.
    std::mutex turn;
    bool is_given_up = false;  // the worker did not come back in time: it must not count any more

    outlet* next = nullptr;  // of the open ones; thread that offers
};

namespace kestrel {

// Makes an outlet without a worker.
outlet* make_outlet(const outlet_owner& owner, uint64_t capacity, uint64_t drain_ns);

// What the worker does between two sleeps.
struct outlet_round {
    enum ending {
        idle,     // there is no message; anything may wake it
        blocked,  // messages may wait, and cannot be delivered; offers need not wake it
        later,    // the owner did not take the last message that it was offered
        busy      // there may be more to do
    };
    ending end = idle;
    unsigned delivered = 0;
    outlet_wait wait = {-1, 0, -1};
};
outlet_round run_round(outlet& self);

// Lets all open outlets send what they have, each for as long as it was given, all at the same
// time. What is left after that is counted as lost, and none of them counts any more. On the thread
// that offers, after the last offer.
void close_outlets();

}  // namespace kestrel
