#include "history.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using metrics::counter_reading;
using metrics::history;

TEST(History, RatesAreThoseOfTheTimeThatPassed) {
    history past;
    past.add({100, 1000, 5000, 10, 0, 3}, 0);
    EXPECT_TRUE(past.samples().empty());
    past.add({102, 1600, 7000, 30, 8, 4}, 2);
    ASSERT_EQ(past.samples().size(), 1U);
    EXPECT_EQ(past.samples()[0].time, 102);
    EXPECT_EQ(past.samples()[0].packets_per_second, 300);
    EXPECT_EQ(past.samples()[0].bits_per_second, 8000);
    EXPECT_EQ(past.samples()[0].flows_per_second, 10);
    EXPECT_EQ(past.samples()[0].lost_packets_per_second, 4);
    EXPECT_EQ(past.samples()[0].cache_flows, 4U);
}

TEST(History, HoldsFifteenMinutes) {
    history past;
    for (unsigned second = 0; second <= 1000; ++second)
        past.add({static_cast<double>(second), uint64_t{second} * 7, 0, 0, 0, second}, 1);
    ASSERT_EQ(past.samples().size(), 900U);
    EXPECT_EQ(past.samples().front().time, 101);
    EXPECT_EQ(past.samples().back().time, 1000);
    EXPECT_EQ(past.samples().back().packets_per_second, 7);
}

TEST(History, NoTimeGivesNoSampleAndLosesNothing) {
    history past;
    past.add({100, 0, 0, 0, 0, 0}, 0);
    past.add({100, 50, 0, 0, 0, 0}, 0);
    EXPECT_TRUE(past.samples().empty());
    past.add({101, 80, 0, 0, 0, 0}, 1);
    ASSERT_EQ(past.samples().size(), 1U);
    EXPECT_EQ(past.samples()[0].packets_per_second, 80);
}

TEST(History, AClockThatIsSetBackTakesAllSamplesWithIt) {
    history past;
    for (const double time : {100, 101, 102, 103})
        past.add({time, 0, 0, 0, 0, 0}, 1);
    past.add({44, 0, 0, 0, 0, 0}, 1);  // 60 s back
    past.add({45, 0, 0, 0, 0, 0}, 1);
    std::vector<double> times;
    for (const metrics::history_sample& one : past.samples())
        times.push_back(one.time);
    EXPECT_EQ(times, (std::vector<double>{41, 42, 43, 44, 45}));
}

TEST(History, AClockThatIsSetForwardLeavesAGap) {
    history past;
    past.add({100, 0, 0, 0, 0, 0}, 0);
    past.add({101, 0, 0, 0, 0, 0}, 1);
    past.add({162, 60, 0, 0, 0, 0}, 1);
    ASSERT_EQ(past.samples().size(), 2U);
    EXPECT_EQ(past.samples()[0].time, 101);
    EXPECT_EQ(past.samples()[1].time, 162);
    EXPECT_EQ(past.samples()[1].packets_per_second, 60);
}

TEST(History, ACounterThatSeemsToGoBackIsNoRate) {
    history past;
    past.add({100, 50, 0, 0, 0, 0}, 0);
    past.add({101, 49, 0, 0, 0, 0}, 1);
    EXPECT_EQ(past.samples()[0].packets_per_second, 0);
}

}  // namespace
