// Tests of the signal handler, called directly and through real signals.
#include "engine/signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "base/clock.h"
#include "flow/flush_request.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/program.h"
#include "kestrelexp/service.h"

namespace kestrel {
namespace {

struct Signals : testing::Test {
    void SetUp() override {
        exit_requested = 0;
        next_alarm_time = 0;
        end_flush(begin_flush());
        take_clock_jump();
    }
    void TearDown() override {
        SetUp();
        alarm(0);
        for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGPIPE, SIGXFSZ})
            signal(number, SIG_DFL);
    }

    std::string messages_of(int number) {
        testing::internal::CaptureStderr();
        signal_handler(number);
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(Signals, TheFirstCallArmsTheAlarmAndChangesNoFlag) {
    EXPECT_EQ(messages_of(0), "");
    EXPECT_EQ(alarm(0), 5u);
    EXPECT_EQ(exit_requested, 0);
    EXPECT_EQ(queue_force_flush, 0u);
    EXPECT_EQ(next_alarm_time, 0u);
}

TEST_F(Signals, ABrokenPipeIsIgnored) {
    signal_handler(0);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(Signals, AFileThatMayNotGrowIsIgnored) {
    signal_handler(0);
    EXPECT_EQ(signal(SIGXFSZ, SIG_DFL), SIG_IGN);
}

TEST_F(Signals, TheFirstInterruptAsksForAFlushAndTheEnd) {
    EXPECT_EQ(messages_of(SIGINT), "CTRL-C detected, will exit as soon as possible\n");
    EXPECT_EQ(exit_requested, 1);
    EXPECT_EQ(queue_force_flush, 1u);
    EXPECT_EQ(alarm(0), 5u);
}

TEST_F(Signals, ADaemonsInterruptIsReportedOutsideTheHandler) {
    syslog_on = 1;
    EXPECT_EQ(messages_of(SIGINT), "");
    syslog_on = 0;
    EXPECT_EQ(exit_requested, 1);
    testing::internal::CaptureStderr();
    report_interrupt();
    report_interrupt();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CTRL-C detected, will exit as soon as possible\n");
}

TEST_F(Signals, QuitIsAnInterrupt) {
    EXPECT_EQ(messages_of(SIGQUIT), "CTRL-C detected, will exit as soon as possible\n");
    EXPECT_EQ(exit_requested, 1);
    EXPECT_EQ(queue_force_flush, 1u);
}

TEST_F(Signals, TerminateIsAnInterrupt) {
    EXPECT_EQ(messages_of(SIGTERM), "CTRL-C detected, will exit as soon as possible\n");
    EXPECT_EQ(exit_requested, 1);
    EXPECT_EQ(queue_force_flush, 1u);
    EXPECT_EXIT(signal_handler(SIGTERM), testing::ExitedWithCode(42),
                testing::Eq("Ok. Ok. Exiting now. You will be DOOMED for it\n"));
}

unsigned stops;
unsigned jumps;

TEST_F(Signals, TheRunningEngineIsAsked) {
    static const engine asked = [] {
        engine row{};
        row.stop = [] { ++stops; };
        row.follow_clock_jump = [] { ++jumps; };
        return row;
    }();
    EXPECT_EXIT(
        {
            pass_signals_to(asked);
            next_alarm_time = 1;
            signal_handler(SIGALRM);
            signal_handler(SIGINT);
            std::fprintf(stderr, "%u %u %u %u", jumps, stops, queue_force_flush,
                         static_cast<unsigned>(exit_requested));
            _exit(0);
        },
        testing::ExitedWithCode(0),
        testing::Eq("CTRL-C detected, will exit as soon as possible\n1 1 0 1"));
}

TEST_F(Signals, AClockJumpIsPendingUntilItIsTaken) {
    EXPECT_FALSE(is_clock_jump_pending());
    next_alarm_time = timer_get_sec() - 61;
    signal_handler(SIGALRM);
    EXPECT_TRUE(is_clock_jump_pending());
    take_clock_jump();
    EXPECT_FALSE(is_clock_jump_pending());
}

TEST_F(Signals, TheSecondInterruptEndsWithFortyTwo) {
    exit_requested = 1;
    EXPECT_EXIT(signal_handler(SIGINT), testing::ExitedWithCode(42),
                testing::Eq("Ok. Ok. Exiting now. You will be DOOMED for it\n"));
}

TEST_F(Signals, RealSignalsReachTheHandlerEveryTime) {
    signal_handler(0);
    for (int i = 0; i < 3; ++i) {
        queue_force_flush = 0;
        next_alarm_time = 1;
        raise(SIGALRM);
        EXPECT_EQ(queue_force_flush, 1u);
    }
    testing::internal::CaptureStderr();
    raise(SIGINT);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(exit_requested, 1);
}

TEST_F(Signals, TheFirstAlarmOnlySetsTheNext) {
    const uint64_t before = timer_get_sec();
    signal_handler(SIGALRM);
    EXPECT_GE(next_alarm_time, before + 5);
    EXPECT_LE(next_alarm_time, timer_get_sec() + 5);
    EXPECT_EQ(queue_force_flush, 0u);
}

TEST_F(Signals, AClockSixtyOneSecondsAheadAsksForAFlush) {
    next_alarm_time = timer_get_sec() - 61;
    signal_handler(SIGALRM);
    EXPECT_EQ(queue_force_flush, 1u);
    EXPECT_EQ(exit_requested, 0);
}

TEST_F(Signals, AClockSixtyOneSecondsBehindAsksForAFlush) {
    next_alarm_time = timer_get_sec() + 62;  // 61 when the second turns over in between
    signal_handler(SIGALRM);
    EXPECT_EQ(queue_force_flush, 1u);
}

TEST_F(Signals, AClockLessThanSixtyOneSecondsAwayIsLeftAlone) {
    next_alarm_time = timer_get_sec() - 59;
    signal_handler(SIGALRM);
    EXPECT_EQ(queue_force_flush, 0u);
    next_alarm_time = timer_get_sec() + 60;
    signal_handler(SIGALRM);
    EXPECT_EQ(queue_force_flush, 0u);
}

TEST_F(Signals, TheInterruptedCodeKeepsItsErrno) {
    errno = ENOTTY;
    signal_handler(SIGALRM);
    EXPECT_EQ(errno, ENOTTY);
}

}  // namespace
}  // namespace kestrel
