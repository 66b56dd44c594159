// The workers of outlets: when they sleep and wake, and how the program closes them.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "base/clock.h"
#include "base/outlet.h"
#include "tests/support/outlet_fixture.h"

namespace kestrel {
namespace {

using namespace std::chrono_literals;

bool wait_until(const std::function<bool()>& is_so) {
    for (int n = 0; n < 20'000; ++n) {
        if (is_so())
            return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

TEST(OutletWorker, SendsWhatIsOfferedAndSleepsInBetween) {
    scripted script;
    std::atomic<unsigned> asked = 0;
    script.tend = [&](bool, outlet_wait&) {
        ++asked;
        return 1;
    };
    const outlet_owner owner = script.owner();
    outlet* const self = outlet_open(&owner, 1 << 20, 10);
    for (unsigned n = 1; n <= 20; ++n) {
        EXPECT_EQ(offer(self), 1);
        EXPECT_TRUE(wait_until([&] { return records_of(self, OUTLET_SENT) == n; }));
    }
    std::this_thread::sleep_for(20ms);
    const unsigned before = asked;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(asked, before);
    close_outlets();
    EXPECT_EQ(records_of(self, OUTLET_SENT), 20U);
}

TEST(OutletWorker, LosesNothingBetweenOfferAndSleep) {
    scripted script;
    const outlet_owner owner = script.owner();
    outlet* const self = outlet_open(&owner, 1 << 16, 10);
    uint64_t taken = 0;
    for (unsigned n = 0; n < 100'000; ++n) {
        taken += static_cast<uint64_t>(offer(self));
        if (n % 1000 == 0)  // now and then the worker falls asleep
            std::this_thread::sleep_for(2ms);
    }
    close_outlets();
    EXPECT_EQ(records_of(self, OUTLET_SENT), taken);
    EXPECT_EQ(records_of(self, OUTLET_QUEUE_FULL), 100'000 - taken);
    EXPECT_EQ(records_of(self, OUTLET_NOT_DRAINED), 0U);
    EXPECT_EQ(counts_of(self).queued.records, 0U);
}

TEST(OutletWorker, WaitsForTheOwnersDescriptor) {
    scripted script;
    const int ready = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    script.tend = [&](bool, outlet_wait& wait) {
        uint64_t count;
        if (read(ready, &count, sizeof count) > 0)
            return 1;
        wait.descriptor = ready;
        wait.events = POLLIN;
        return 0;
    };
    const outlet_owner owner = script.owner();
    outlet* const self = outlet_open(&owner, 1 << 16, 10);
    (void)offer(self);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 0U);
    const uint64_t one = 1;
    EXPECT_EQ(write(ready, &one, sizeof one), 8);
    EXPECT_TRUE(wait_until([&] { return records_of(self, OUTLET_SENT) == 1; }));
    close_outlets();
    (void)close(ready);
}

TEST(OutletWorker, AnOwnerWithoutAnswerIsAskedAgainAfterAWhile) {
    scripted script;
    std::atomic<unsigned> calls = 0;
    script.deliver = [&](outlet_message&) { return ++calls < 10 ? OUTLET_LATER : OUTLET_DONE; };
    const outlet_owner owner = script.owner();
    outlet* const self = outlet_open(&owner, 1 << 16, 10);
    (void)offer(self);
    EXPECT_TRUE(wait_until([&] { return records_of(self, OUTLET_SENT) == 1; }));
    close_outlets();
    EXPECT_EQ(calls, 10U);
}

TEST(OutletClose, SendsWhatIsLeft) {
    scripted script;
    std::atomic<bool> is_ready = false;
    std::atomic<bool> was_told = false;
    std::atomic<int> ends = 0;
    script.tend = [&](bool is_closing, outlet_wait& wait) {
        was_told = is_closing;
        is_ready = is_closing;
        wait.timeout_ms = 5;
        return is_ready ? 1 : 0;
    };
    script.end = [&] { ++ends; };
    const outlet_owner owner = script.owner();
    outlet* const self = outlet_open(&owner, 1 << 16, 10);
    for (int n = 0; n < 50; ++n)
        (void)offer(self);
    close_outlets();
    EXPECT_TRUE(was_told);
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 50U);
}

TEST(OutletClose, CountsWhatIsLeftAfterTheDrain) {
    scripted script;
    script.tend = [](bool, outlet_wait&) { return 1; };
    script.deliver = [](outlet_message& message) {
        return message.number < 2 ? OUTLET_KEEP : OUTLET_LATER;
    };
    const outlet_owner owner = script.owner();
    outlet* const self = outlet_open(&owner, 1 << 16, 0);
    for (uint64_t n = 0; n < 5; ++n)
        (void)offer(self, 1, n);
    EXPECT_TRUE(wait_until([&] { return counts_of(self).queued.messages == 5; }));
    std::this_thread::sleep_for(20ms);
    script.end = [&] { outlet_settle(self, OUTLET_SENT); };
    close_outlets();
    EXPECT_EQ(records_of(self, OUTLET_SENT), 1U);
    EXPECT_EQ(records_of(self, OUTLET_UNACKNOWLEDGED), 1U);
    EXPECT_EQ(records_of(self, OUTLET_NOT_DRAINED), 3U);
    EXPECT_EQ(counts_of(self).queued.records, 0U);
}

TEST(OutletClose, IsOverWhenTheLastMessageIsSettled) {
    scripted script;
    outlet* self = nullptr;
    script.deliver = [](outlet_message&) { return OUTLET_KEEP; };
    script.tend = [&self](bool is_closing, outlet_wait&) {
        if (is_closing)
            outlet_settle(self, OUTLET_SENT);
        return 1;
    };
    const outlet_owner owner = script.owner();
    self = outlet_open(&owner, 1 << 16, 10);
    (void)offer(self);
    std::this_thread::sleep_for(20ms);
    const uint64_t start_ns = system_uptime_ns();
    close_outlets();
    EXPECT_LT(system_uptime_ns() - start_ns, 5 * ns_per_second);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 1U);
}

TEST(OutletClose, AnEmptyOneIsOverAtOnce) {
    scripted script;
    script.tend = [](bool, outlet_wait&) { return 0; };
    const outlet_owner owner = script.owner();
    (void)outlet_open(&owner, 1 << 16, 10);
    const uint64_t start_ns = system_uptime_ns();
    close_outlets();
    EXPECT_LT(system_uptime_ns() - start_ns, 5 * ns_per_second);
}

TEST(OutletClose, AllDrainAtTheSameTime) {
    scripted script;
    script.tend = [](bool, outlet_wait&) { return 0; };
    const outlet_owner owner = script.owner();
    outlet* all[4];
    for (outlet*& each : all) {
        each = outlet_open(&owner, 1 << 16, 1);
        (void)offer(each);
    }
    const uint64_t start_ns = system_uptime_ns();
    close_outlets();
    const uint64_t taken_ns = system_uptime_ns() - start_ns;
    EXPECT_GE(taken_ns, ns_per_second);
    EXPECT_LT(taken_ns, 2 * ns_per_second);
    for (const outlet* each : all)
        EXPECT_EQ(records_of(each, OUTLET_NOT_DRAINED), 1U);
}

TEST(OutletClose, GoesOnWithoutAWorkerThatDoesNotComeBack) {
    scripted script;
    std::mutex stuck;
    std::atomic<bool> is_stuck = false;
    std::atomic<bool> is_back = false;
    stuck.lock();
    script.deliver = [&](outlet_message& message) {
        if (message.number == 1) {
            is_stuck = true;
            const std::scoped_lock wait(stuck);
        }
        return OUTLET_DONE;
    };
    script.end = [&] { is_back = true; };
    const outlet_owner owner = script.owner();
    outlet* const self = outlet_open(&owner, 1 << 16, 0);
    for (uint64_t n = 0; n < 4; ++n)
        (void)offer(self, 1, n);
    ASSERT_TRUE(wait_until([&] { return is_stuck.load(); }));
    const uint64_t start_ns = system_uptime_ns();
    close_outlets();
    EXPECT_LT(system_uptime_ns() - start_ns, 3 * ns_per_second);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 1U);
    EXPECT_EQ(records_of(self, OUTLET_NOT_DRAINED), 3U);
    stuck.unlock();  // it comes back, and counts nothing any more
    ASSERT_TRUE(wait_until([&] { return self->is_over.load(); }));
    EXPECT_TRUE(is_back);
    EXPECT_EQ(outlet_held(self), nullptr);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 1U);
    EXPECT_EQ(records_of(self, OUTLET_NOT_DRAINED), 3U);
    EXPECT_EQ(counts_of(self).queued.records, 0U);
}

}  // namespace
}  // namespace kestrel
