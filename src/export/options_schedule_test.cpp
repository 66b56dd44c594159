#include "export/options_schedule.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrel {
namespace {

constexpr uint64_t ms = ns_per_ms;
constexpr uint64_t begin = 1000 * ns_per_second;

class OptionsSchedule : public testing::Test {
  protected:
    // Sends what is due, every ms of a stretch of time. Returns when, in ms since the beginning of
    // the test. A round has so many messages.
    std::vector<uint64_t> sent_for(uint64_t stretch_ms, unsigned messages = 1) {
        std::vector<uint64_t> sent;
        for (const uint64_t end_ns = now_ns_ + stretch_ms * ms; now_ns_ < end_ns; now_ns_ += ms) {
            if (!schedule_.is_due(now_ns_))
                continue;
            if (schedule_.begins_round()) {
                schedule_.begin_round(now_ns_);
                position_ = 0;
            }
            ++position_;
            schedule_.note_message(now_ns_, position_ == messages);
            sent.push_back((now_ns_ - begin) / ms);
        }
        return sent;
    }
    using times = std::vector<uint64_t>;

    options_schedule schedule_{60 * ns_per_second};
    uint64_t now_ns_ = begin;
    unsigned position_ = 0;
};

TEST_F(OptionsSchedule, ARoundComesAtTheStartAndInEveryPeriod) {
    EXPECT_EQ(sent_for(180'001), (times{0, 60'000, 120'000, 180'000}));
}

TEST_F(OptionsSchedule, MessagesOfARoundAreTenMillisecondsApart) {
    EXPECT_EQ(sent_for(60'031, 4), (times{0, 10, 20, 30, 60'000, 60'010, 60'020, 60'030}));
}

TEST_F(OptionsSchedule, ANewConnectionHasARoundAtOnce) {
    EXPECT_EQ(sent_for(5'000), (times{0}));
    schedule_.note_connection();
    EXPECT_EQ(sent_for(60'001), (times{5'000, 65'000}));
}

TEST_F(OptionsSchedule, ANewConnectionBeginsARoundUnderWayAnew) {
    EXPECT_EQ(sent_for(1'005), (times{0}));
    schedule_.note_connection();
    EXPECT_EQ(sent_for(15, 5), (times{1'005, 1'015}));
    EXPECT_FALSE(schedule_.begins_round());
    schedule_.note_connection();
    EXPECT_TRUE(schedule_.begins_round());
}

TEST_F(OptionsSchedule, ConnectionsThatBreakAtOnceHaveARoundASecond) {
    times all;
    for (int n = 0; n < 30; ++n) {
        for (const uint64_t time : sent_for(100, 3))
            all.push_back(time);
        schedule_.note_connection();
    }
    EXPECT_EQ(all, (times{0, 10, 20, 100, 110, 120, 1'100, 1'110, 1'120, 2'100, 2'110, 2'120}));
}

TEST_F(OptionsSchedule, AChangeHasARoundASecondAfterTheLastOneAtTheEarliest) {
    EXPECT_EQ(sent_for(300), (times{0}));
    schedule_.note_change();
    EXPECT_EQ(sent_for(1'000), (times{1'000}));
    EXPECT_EQ(sent_for(10'000), (times{}));
    schedule_.note_change();
    schedule_.note_change();
    EXPECT_EQ(sent_for(60'000), (times{11'300}));
}

TEST_F(OptionsSchedule, AChangeDuringARoundIsToldByTheNextOne) {
    EXPECT_EQ(sent_for(15, 4), (times{0, 10}));
    schedule_.note_change();
    EXPECT_EQ(sent_for(1'031, 4), (times{20, 30, 1'000, 1'010, 1'020, 1'030}));
}

TEST_F(OptionsSchedule, AClockThatLeapsCausesOneRound) {
    EXPECT_EQ(sent_for(1), (times{0}));
    now_ns_ += 100'000 * ns_per_second;
    EXPECT_EQ(sent_for(59'999).size(), 1U);
}

}  // namespace
}  // namespace kestrel
