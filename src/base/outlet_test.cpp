// Outlets: what the worker asks its owner, what is counted, how the program closes them.
#include "base/outlet.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/counters.h"

namespace kestrel {
namespace {

using namespace std::chrono_literals;

// An export of which a test says what it answers.
struct scripted {
    std::function<int32_t(bool is_closing, outlet_wait& wait)> tend = [](bool, outlet_wait&) {
        return 1;
    };
    std::function<int32_t(outlet_message& message)> deliver = [](outlet_message&) {
        return OUTLET_DONE;
    };
    std::function<void()> end = [] {};

    outlet_owner owner() {
        return {this,
                [](void* context, outlet*, int32_t is_closing, outlet_wait* wait) {
                    return static_cast<scripted*>(context)->tend(is_closing != 0, *wait);
                },
                [](void* context, outlet*, outlet_message* message) {
                    return static_cast<scripted*>(context)->deliver(*message);
                },
                [](void* context, outlet*) { static_cast<scripted*>(context)->end(); }};
    }
};

// A message of 8 bytes with `records` records of 10 packets each.
int32_t offer(outlet* to, uint32_t records = 1, uint64_t number = 0) {
    char data[8] = {'m', 'e', 's', 's', 'a', 'g', 'e', '.'};
    const outlet_message message = {data, sizeof data, records, records * uint64_t{10}, number, 0};
    return outlet_offer(to, &message);
}

outlet_counts counts_of(const outlet* of) {
    outlet_counts counts;
    outlet_read_counts(of, &counts);
    return counts;
}

uint64_t records_of(const outlet* of, outlet_fate fate) {
    return counts_of(of).fates[fate].records;
}

bool wait_until(const std::function<bool()>& is_so) {
    for (int n = 0; n < 20'000; ++n) {
        if (is_so())
            return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

constexpr uint64_t room = 4096;

TEST(OutletRound, DeliversInOrderAndCountsWhatWasSent) {
    scripted script;
    std::vector<uint64_t> numbers;
    script.deliver = [&](outlet_message& message) {
        numbers.push_back(message.number);
        EXPECT_EQ(std::string(static_cast<char*>(message.data), message.length), "message.");
        return OUTLET_DONE;
    };
    outlet* const self = make_outlet(script.owner(), room, 0);
    EXPECT_EQ(offer(self, 2, 100), 1);
    EXPECT_EQ(offer(self, 3, 102), 1);
    EXPECT_EQ(counts_of(self).queued.messages, 2U);
    EXPECT_EQ(counts_of(self).queued.records, 5U);
    EXPECT_EQ(counts_of(self).queued.packets, 50U);
    EXPECT_EQ(counts_of(self).queued.bytes, 16U);
    const outlet_round round = run_round(*self);
    EXPECT_EQ(round.end, outlet_round::idle);
    EXPECT_EQ(round.delivered, 2U);
    EXPECT_EQ(numbers, (std::vector<uint64_t>{100, 102}));
    const outlet_counts counts = counts_of(self);
    EXPECT_EQ(counts.queued.messages, 0U);
    EXPECT_EQ(counts.queued.records, 0U);
    EXPECT_EQ(counts.fates[OUTLET_SENT].messages, 2U);
    EXPECT_EQ(counts.fates[OUTLET_SENT].records, 5U);
    EXPECT_EQ(counts.fates[OUTLET_SENT].packets, 50U);
    EXPECT_EQ(counts.fates[OUTLET_SENT].bytes, 16U);
}

TEST(OutletRound, DropsTheNewestWhenTheRingIsFull) {
    scripted script;
    script.tend = [](bool, outlet_wait&) { return 0; };
    outlet* const self = make_outlet(script.owner(), 4096, 0);
    unsigned taken = 0;
    for (uint64_t n = 0; n < 100; ++n)
        taken += static_cast<unsigned>(offer(self, 1, n));
    EXPECT_EQ(taken, 73U);  // 4096 / (48 + 8)
    EXPECT_EQ(records_of(self, OUTLET_QUEUE_FULL), 27U);
    EXPECT_EQ(counts_of(self).queued.records, 73U);
    uint64_t next = 0;
    script.tend = [](bool, outlet_wait&) { return 1; };
    script.deliver = [&next](outlet_message& message) {
        EXPECT_EQ(message.number, next++);
        return OUTLET_DONE;
    };
    while (run_round(*self).end == outlet_round::busy) {
    }
    EXPECT_EQ(next, 73U);
    EXPECT_EQ(offer(self), 1);
}

TEST(OutletRound, ABlockedOwnerIsAskedForNothing) {
    scripted script;
    script.tend = [](bool, outlet_wait& wait) {
        wait.timeout_ms = 77;
        return 0;
    };
    script.deliver = [](outlet_message&) {
        ADD_FAILURE();
        return OUTLET_DONE;
    };
    outlet* const self = make_outlet(script.owner(), room, 0);
    (void)offer(self);
    const outlet_round round = run_round(*self);
    EXPECT_EQ(round.end, outlet_round::blocked);
    EXPECT_EQ(round.wait.timeout_ms, 77);
    EXPECT_EQ(round.wait.descriptor, -1);
}

TEST(OutletRound, AMessageThatIsPutOffComesAgain) {
    scripted script;
    int answer = OUTLET_LATER;
    unsigned calls = 0;
    script.deliver = [&](outlet_message& message) {
        EXPECT_EQ(message.number, 5U);
        ++calls;
        return answer;
    };
    outlet* const self = make_outlet(script.owner(), room, 0);
    (void)offer(self, 1, 5);
    EXPECT_EQ(run_round(*self).end, outlet_round::later);
    EXPECT_EQ(run_round(*self).end, outlet_round::later);
    answer = OUTLET_DONE;
    EXPECT_EQ(run_round(*self).end, outlet_round::idle);
    EXPECT_EQ(calls, 3U);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 1U);
}

TEST(OutletRound, WhatTheOwnerRefusesIsLost) {
    scripted script;
    int answer = OUTLET_REFUSE;
    script.deliver = [&](outlet_message&) { return answer; };
    outlet* const self = make_outlet(script.owner(), room, 0);
    (void)offer(self, 4);
    (void)run_round(*self);
    answer = 12345;
    (void)offer(self, 2);
    (void)run_round(*self);
    EXPECT_EQ(records_of(self, OUTLET_UNSENT), 6U);
    EXPECT_EQ(counts_of(self).queued.records, 0U);
}

TEST(OutletRound, HeldMessagesAreSettledInTheirOrder) {
    scripted script;
    script.deliver = [](outlet_message& message) {
        message.mark = message.number * 2;
        return OUTLET_KEEP;
    };
    outlet* const self = make_outlet(script.owner(), room, 0);
    for (uint32_t n = 1; n <= 3; ++n)
        (void)offer(self, n, n);
    EXPECT_EQ(outlet_held(self), nullptr);
    (void)run_round(*self);
    EXPECT_EQ(counts_of(self).queued.records, 6U);
    ASSERT_NE(outlet_held(self), nullptr);
    EXPECT_EQ(outlet_held(self)->mark, 2U);
    outlet_settle(self, OUTLET_SENT);
    EXPECT_EQ(outlet_held(self)->mark, 4U);
    outlet_settle(self, OUTLET_UNACKNOWLEDGED);
    EXPECT_EQ(outlet_held(self)->mark, 6U);
    outlet_settle(self, OUTLET_NOT_DRAINED);  // not an owner's word
    EXPECT_EQ(outlet_held(self), nullptr);
    outlet_settle(self, OUTLET_SENT);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 1U);
    EXPECT_EQ(records_of(self, OUTLET_UNACKNOWLEDGED), 2U);
    EXPECT_EQ(records_of(self, OUTLET_UNSENT), 3U);
    EXPECT_EQ(records_of(self, OUTLET_NOT_DRAINED), 0U);
}

TEST(OutletRound, ReturnedMessagesAreDeliveredAgain) {
    scripted script;
    std::string order;
    script.deliver = [&](outlet_message& message) {
        order += std::to_string(message.number);
        return OUTLET_KEEP;
    };
    outlet* const self = make_outlet(script.owner(), room, 0);
    (void)offer(self, 1, 1);
    (void)offer(self, 1, 2);
    (void)run_round(*self);
    outlet_settle(self, OUTLET_SENT);
    (void)offer(self, 1, 3);
    outlet_return(self);
    EXPECT_EQ(outlet_held(self), nullptr);
    (void)run_round(*self);
    EXPECT_EQ(order, "1223");
}

TEST(OutletRound, ALongQueueIsWorkedOffInPartsSoThatTheOwnerIsAskedInBetween) {
    scripted script;
    unsigned asked = 0;
    script.tend = [&](bool, outlet_wait&) {
        ++asked;
        return 1;
    };
    outlet* const self = make_outlet(script.owner(), 65536, 0);
    for (int n = 0; n < 100; ++n)
        (void)offer(self);
    while (run_round(*self).end == outlet_round::busy) {
    }
    EXPECT_EQ(asked, 4U);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 100U);
}

TEST(OutletMetrics, AreThoseOfTheExport) {
    scripted script;
    int answer = OUTLET_DONE;
    script.deliver = [&](outlet_message&) { return answer; };
    const metrics_label_scope label("export=\"scripted-0\"");
    outlet* const self = make_outlet(script.owner(), 128, 0);
    const auto value = [](const char* name, const char* more = "") {
        return metrics_sum(name, std::string("export=\"scripted-0\"") + more);
    };
    (void)offer(self, 3);
    (void)offer(self, 4);
    (void)offer(self, 5);
    EXPECT_EQ(value("kestrelexp_export_queued_messages"), 2U);
    EXPECT_EQ(value("kestrelexp_export_queued_records"), 7U);
    EXPECT_EQ(value("kestrelexp_export_queued_packets"), 70U);
    EXPECT_EQ(value("kestrelexp_export_queued_bytes"), 16U);
    EXPECT_EQ(value("kestrelexp_export_lost_records_total", ",reason=\"queue_full\""), 5U);
    EXPECT_EQ(value("kestrelexp_export_lost_packets_total", ",reason=\"queue_full\""), 50U);
    EXPECT_EQ(value("kestrelexp_export_failed_messages_total"), 1U);
    (void)run_round(*self);
    EXPECT_EQ(value("kestrelexp_export_queued_records"), 0U);
    EXPECT_EQ(value("kestrelexp_export_messages_total"), 2U);
    EXPECT_EQ(value("kestrelexp_export_records_total"), 7U);
    EXPECT_EQ(value("kestrelexp_export_packets_total"), 70U);
    EXPECT_EQ(value("kestrelexp_export_bytes_total"), 16U);
    answer = OUTLET_REFUSE;
    (void)offer(self, 6);
    (void)run_round(*self);
    EXPECT_EQ(value("kestrelexp_export_lost_records_total", ",reason=\"send\""), 6U);
    EXPECT_EQ(value("kestrelexp_export_lost_packets_total", ",reason=\"send\""), 60U);
    EXPECT_EQ(value("kestrelexp_export_failed_messages_total"), 2U);
    EXPECT_EQ(value("kestrelexp_export_lost_records_total"), 11U);
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
