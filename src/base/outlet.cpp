// Outlets; see kestrelexp/outlet.h. The thread that offers shares with the worker the ring, a flag
// by which it sees that the worker sleeps, and the time at which the drain is over; what is taken
// is the worker's, and changes hands under a lock once: when the program ends without it.
#include "base/outlet.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "base/clock.h"
#include "base/heartbeat.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/thread.h"

namespace kestrel {
namespace {

// Between two looks at the owner's connection.
constexpr unsigned round_messages = 32;
// Messages that come this soon after others wait for no wake-up of the worker, and cost none.
constexpr int nap_ms = 1;
// How long the end of the program waits for a worker whose time is over.
constexpr uint64_t grace_ns = 500 * ns_per_ms;

outlet* open_outlets = nullptr;

void wake(const outlet& self) {
    const uint64_t one = 1;
    (void)!write(self.wake, &one, sizeof one);  // fails only when it is awake for certain
}

uint64_t drained_at(const outlet& self) {
    return self.drained_ns.load(std::memory_order_acquire);
}

outlet_message* take_waiting(outlet& self) {
    const std::scoped_lock locked(self.turn);
    return self.is_given_up ? nullptr : self.ring.waiting();
}

// With the turn.
void end_message(outlet& self, outlet_message* message, outlet_fate fate) {
    self.account.add_ended(*message, fate);
    self.ring.end(message);
}

// Returns whether the owner has taken the message.
bool follow_answer(outlet& self, outlet_message* message, int32_t answer) {
    const std::scoped_lock locked(self.turn);
    // The owner may have asked for all that were held to be delivered again.
    if (answer == OUTLET_LATER || self.is_given_up || self.ring.waiting() != message)
        return false;
    self.ring.hold();
    if (answer != OUTLET_KEEP)
        end_message(self, message, answer == OUTLET_DONE ? OUTLET_SENT : OUTLET_UNSENT);
    return true;
}

// With the turn: nothing more is sent.
void end_all(outlet& self) {
    while (outlet_message* const message = self.ring.held())
        end_message(self, message, OUTLET_UNACKNOWLEDGED);
    while (outlet_message* const message = self.ring.waiting()) {
        self.ring.hold();
        end_message(self, message, OUTLET_NOT_DRAINED);
    }
}

// Sleeps until the descriptor is ready, the time is over, or somebody wakes it.
void sleep_on(outlet& self, outlet_wait wait, bool is_woken_by_offers) {
    if (is_woken_by_offers) {
        (void)self.is_asleep.exchange(true, std::memory_order_acq_rel);
        if (take_waiting(self) != nullptr)
            wait.timeout_ms = 0;
    }
    if (const uint64_t end_ns = drained_at(self); end_ns != 0) {
        const uint64_t now_ns = system_uptime_ns();
        const auto left_ms = end_ns > now_ns ? (end_ns - now_ns) / ns_per_ms + 1 : 0;
        if (wait.timeout_ms < 0 || static_cast<uint64_t>(wait.timeout_ms) > left_ms)
            wait.timeout_ms = static_cast<int>(left_ms);
    }
    pollfd sources[] = {{self.wake, POLLIN, 0},
                        {wait.descriptor, static_cast<short>(wait.events), 0}};
    (void)poll(sources, 2, wait.timeout_ms);  // whatever ends it, everything is looked at again
    if (is_woken_by_offers)
        (void)self.is_asleep.exchange(false, std::memory_order_acq_rel);
    uint64_t count;
    if ((sources[0].revents & POLLIN) != 0)
        (void)!read(self.wake, &count, sizeof count);
}

void sleep_after(outlet& self, const outlet_round& round, bool is_stuck) {
    outlet_wait wait = round.wait;
    const bool is_nap = round.end == outlet_round::idle && round.delivered > 0;
    if (is_nap || is_stuck)
        wait.timeout_ms = wait.timeout_ms < 0 ? nap_ms : std::min(wait.timeout_ms, nap_ms);
    sleep_on(self, wait, round.end == outlet_round::idle && !is_nap);
}

// Whether the drain has begun, and nothing is left or the time is over.
bool is_drained(const outlet& self) {
    const uint64_t end_ns = drained_at(self);
    return end_ns != 0 && (self.ring.is_empty() || system_uptime_ns() >= end_ns);
}

void* work(void* argument) {
    outlet& self = *static_cast<outlet*>(argument);
    bool was_later = false;
    for (;;) {
        const outlet_round round = run_round(self);
        // Who takes nothing twice in a row has nothing to wait for, and is asked a little later.
        const bool is_later = round.end == outlet_round::later && round.delivered == 0;
        const bool is_stuck = is_later && was_later;
        was_later = is_later;
        if (is_drained(self))
            break;
        if (is_stuck || round.end == outlet_round::idle || round.end == outlet_round::blocked)
            sleep_after(self, round, is_stuck);
    }
    if (self.owner.end != nullptr)
        self.owner.end(self.owner.context, &self);
    const std::scoped_lock locked(self.turn);
    if (!self.is_given_up)
        end_all(self);
    self.is_over.store(true, std::memory_order_release);
    return nullptr;
}

// Not a sleep that an interrupt ends: it is the interrupt that has brought us here.
bool wait_for_end(const outlet& self) {
    const uint64_t last_ns = drained_at(self) + grace_ns;
    while (!self.is_over.load(std::memory_order_acquire)) {
        if (system_uptime_ns() >= last_ns)
            return false;
        (void)poll(nullptr, 0, 1);  // a signal ends it early, and does no harm
    }
    return true;
}

void give_up(outlet& self) {
    const std::scoped_lock locked(self.turn);
    if (!self.is_over.load(std::memory_order_relaxed))
        end_all(self);
    self.is_given_up = true;
}

}  // namespace

outlet* make_outlet(const outlet_owner& owner, uint64_t capacity, uint64_t drain_ns) {
    auto* const made = make_lifelong<outlet>(owner, capacity, drain_ns);
    made->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (made->wake < 0)
        die(exit_config, "Unable to make an outlet");
    made->next = open_outlets;
    open_outlets = made;
    return made;
}

outlet_round run_round(outlet& self) {
    outlet_round round;
    const outlet_owner& owner = self.owner;
    const bool is_closing = drained_at(self) != 0;
    if (owner.tend != nullptr && owner.tend(owner.context, &self, is_closing, &round.wait) == 0) {
        round.end = outlet_round::blocked;
        return round;
    }
    for (; round.delivered < round_messages; ++round.delivered) {
        outlet_message* const message = take_waiting(self);
        if (message == nullptr)
            return round;
        if (!follow_answer(self, message, owner.deliver(owner.context, &self, message))) {
            round.end = outlet_round::later;
            return round;
        }
    }
    round.end = outlet_round::busy;
    return round;
}

void close_outlets() {
    const known_wait wait;
    const uint64_t now_ns = system_uptime_ns();
    for (outlet* each = open_outlets; each != nullptr; each = each->next) {
        each->drained_ns.store(now_ns + each->drain_ns, std::memory_order_release);
        wake(*each);
    }
    for (outlet* each = open_outlets; each != nullptr; each = each->next)
        if (!wait_for_end(*each))
            give_up(*each);
    open_outlets = nullptr;
}

}  // namespace kestrel

using namespace kestrel;

struct outlet* outlet_open(const struct outlet_owner* owner, uint64_t capacity, uint32_t drain_s) {
    outlet* const made = make_outlet(*owner, capacity, drain_s * ns_per_second);
    if (!start_thread(work, made))
        die(exit_config, "Unable to create a thread for an outlet");
    return made;
}

int32_t outlet_offer(struct outlet* outlet, const struct outlet_message* message) {
    outlet->account.add_offered(*message);
    if (!outlet->ring.put(*message)) {
        outlet->account.add_dropped(*message);
        return 0;
    }
    if (outlet->is_asleep.exchange(false, std::memory_order_acq_rel))
        wake(*outlet);
    return 1;
}

struct outlet_message* outlet_held(struct outlet* outlet) {
    const std::scoped_lock locked(outlet->turn);
    return outlet->is_given_up ? nullptr : outlet->ring.held();
}

void outlet_settle(struct outlet* outlet, int32_t fate) {
    const std::scoped_lock locked(outlet->turn);
    outlet_message* const message = outlet->is_given_up ? nullptr : outlet->ring.held();
    if (message == nullptr)
        return;
    const bool is_known =
        fate == OUTLET_SENT || fate == OUTLET_UNACKNOWLEDGED || fate == OUTLET_NOT_DRAINED;
    end_message(*outlet, message, is_known ? static_cast<outlet_fate>(fate) : OUTLET_UNSENT);
}

void outlet_return(struct outlet* outlet) {
    const std::scoped_lock locked(outlet->turn);
    if (!outlet->is_given_up)
        outlet->ring.unhold();
}

void outlet_read_counts(const struct outlet* outlet, struct outlet_counts* counts) {
    outlet->account.read(*counts);
}
