// Outlets without a worker: what the owner is asked, and what is counted.
#include "base/outlet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/counters.h"
#include "tests/support/outlet_fixture.h"

namespace kestrel {
namespace {

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
    for (uint32_t n = 1; n <= 4; ++n)
        (void)offer(self, n, n);
    EXPECT_EQ(outlet_held(self), nullptr);
    (void)run_round(*self);
    EXPECT_EQ(counts_of(self).queued.records, 10U);
    ASSERT_NE(outlet_held(self), nullptr);
    EXPECT_EQ(outlet_held(self)->mark, 2U);
    outlet_settle(self, OUTLET_SENT);
    EXPECT_EQ(outlet_held(self)->mark, 4U);
    outlet_settle(self, OUTLET_UNACKNOWLEDGED);
    EXPECT_EQ(outlet_held(self)->mark, 6U);
    outlet_settle(self, OUTLET_QUEUE_FULL);  // not an owner's word
    EXPECT_EQ(outlet_held(self)->mark, 8U);
    outlet_settle(self, OUTLET_NOT_DRAINED);
    EXPECT_EQ(outlet_held(self), nullptr);
    outlet_settle(self, OUTLET_SENT);
    EXPECT_EQ(records_of(self, OUTLET_SENT), 1U);
    EXPECT_EQ(records_of(self, OUTLET_UNACKNOWLEDGED), 2U);
    EXPECT_EQ(records_of(self, OUTLET_UNSENT), 3U);
    EXPECT_EQ(records_of(self, OUTLET_NOT_DRAINED), 4U);
    EXPECT_EQ(records_of(self, OUTLET_QUEUE_FULL), 0U);
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

}  // namespace
}  // namespace kestrel
