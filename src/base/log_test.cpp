#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

struct syslog_call {
    int priority;
    std::string text;
    bool interrupt_blocked;
};
std::vector<std::string> opened_logs;
std::vector<syslog_call> syslog_calls;

bool is_blocked(int signal) {
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    return sigismember(&now, signal) == 1;
}

constexpr int log_info = 6;
constexpr int log_debug = 7;

}  // namespace

// In this binary these take the place of the C library's, so that nothing reaches the machine's
// log and the tests see what would have.
extern "C" void openlog(const char* ident, int option, int facility) {
    opened_logs.push_back(std::string(ident) + "/" + std::to_string(option) + "/" +
                          std::to_string(facility));
}

extern "C" __attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format,
                                                             ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    syslog_calls.push_back(
        {priority, text, is_blocked(SIGINT) && is_blocked(SIGQUIT) && is_blocked(SIGALRM)});
}

namespace {

class Log : public testing::Test {
  protected:
    void TearDown() override {
        verbose_level = -1;
        debug_level = -1;
        syslog_on = 0;
        started = 0;
        app_name = nullptr;
        opened_logs.clear();
        syslog_calls.clear();
    }

    template <typename F>
    static std::string stderr_of(F&& body) {
        testing::internal::CaptureStderr();
        body();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(Log, ErrorsAppearWithoutPrefixByDefault) {
    EXPECT_EQ("broken: 7\n", stderr_of([] { verbose_msg(-1, "broken: %i", 7); }));
}

TEST_F(Log, InformationIsHiddenByDefault) {
    EXPECT_EQ("", stderr_of([] { verbose_msg(0, "hello"); }));
}

TEST_F(Log, NothingIsShownBelowTheErrorLevel) {
    verbose_level = -2;
    EXPECT_EQ("", stderr_of([] {
                  verbose_msg(-1, "broken");
                  verbose_msg(0, "hello");
              }));
}

TEST_F(Log, LevelIsRightAlignedInTwoColumns) {
    verbose_level = 12;
    EXPECT_EQ("VERBOSE: 2:detail\nVERBOSE:12:more\n", stderr_of([] {
                  verbose_msg(2, "detail");
                  verbose_msg(12, "more");
              }));
}

TEST_F(Log, LongMessagesAreWholeOnStandardError) {
    const std::string text(5000, 'x');
    EXPECT_EQ(text + "\n", stderr_of([&] { verbose_msg(-1, "%s", text.c_str()); }));
}

TEST_F(Log, MessagesAroundTheInnerBufferSizeAreWhole) {
    verbose_level = 0;
    for (size_t length = 1005; length <= 1030; ++length) {
        const std::string text(length, 'y');
        EXPECT_EQ("VERBOSE: 0:" + text + "\n",
                  stderr_of([&] { verbose_msg(0, "%s", text.c_str()); }));
    }
}

TEST_F(Log, EmptyMessageIsAnEmptyLine) {
    const char* empty = "";
    EXPECT_EQ("\n", stderr_of([&] { verbose_msg(-1, "%s", empty); }));
}

TEST_F(Log, MessagesKeepErrno) {
    stderr_of([] {
        errno = ENOENT;
        verbose_msg(-1, "x");
    });
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Log, ClosedStandardErrorNeverSelectsSyslog) {
    const int kept = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    verbose_msg(-1, "unheard");
    dup2(kept, STDERR_FILENO);
    close(kept);
    EXPECT_EQ(0, syslog_on);
    EXPECT_TRUE(syslog_calls.empty());
}

TEST_F(Log, LinesOfTwoThreadsNeverMix) {
    const std::string a(300, 'a'), b(300, 'b');
    const std::string seen = stderr_of([&] {
        const auto say = [](const std::string& text) {
            for (int i = 0; i < 200; ++i)
                verbose_msg(-1, "%s", text.c_str());
        };
        std::thread other(say, b);
        say(a);
        other.join();
    });
    size_t lines_a = 0, lines_b = 0;
    for (size_t at = 0; at < seen.size(); at += 301) {
        lines_a += seen.compare(at, 301, a + "\n") == 0;
        lines_b += seen.compare(at, 301, b + "\n") == 0;
    }
    EXPECT_EQ(200u, lines_a);
    EXPECT_EQ(200u, lines_b);
}

TEST_F(Log, DebugNamesThePlace) {
    debug_level = 3;
    EXPECT_EQ("DEBUG: 3:,here this: x=5\n",
              stderr_of([] { debug_msg(3, "here", "this", "x=%i", 5); }));
}

TEST_F(Log, DebugKeepsItsPrefixForNegativeLevels) {
    EXPECT_EQ("DEBUG:-1:,here this: x\n", stderr_of([] { debug_msg(-1, "here", "this", "x"); }));
}

TEST_F(Log, DebugHasAGateOfItsOwn) {
    verbose_level = 5;
    EXPECT_EQ("", stderr_of([] { debug_msg(0, "here", "this", "x"); }));
}

TEST_F(Log, SyslogTakesTheMessageWithTheProcessId) {
    syslog_on = 1;
    app_name = "probe";
    EXPECT_EQ("", stderr_of([] { verbose_msg(-1, "broken: %i", 7); }));
    ASSERT_EQ(1u, syslog_calls.size());
    EXPECT_EQ(log_info, syslog_calls[0].priority);
    EXPECT_EQ("(" + std::to_string(getpid()) + ") broken: 7", syslog_calls[0].text);
    EXPECT_EQ(std::vector<std::string>{"probe/0/0"}, opened_logs);
}

TEST_F(Log, SyslogCutsMessagesAt2047Characters) {
    syslog_on = 1;
    verbose_msg(-1, "%s", std::string(2100, 'x').c_str());
    ASSERT_EQ(1u, syslog_calls.size());
    EXPECT_EQ("(" + std::to_string(getpid()) + ") " + std::string(2047, 'x'), syslog_calls[0].text);
}

TEST_F(Log, SyslogIsOpenedAgainForEveryMessage) {
    syslog_on = 1;
    verbose_msg(-1, "one");
    app_name = "renamed";
    verbose_msg(-1, "two");
    EXPECT_EQ((std::vector<std::string>{"app-not-set/0/0", "renamed/0/0"}), opened_logs);
    EXPECT_EQ(0, started);
}

TEST_F(Log, SyslogIsNotOpenedOnceStarted) {
    syslog_on = 1;
    started = 1;
    verbose_msg(-1, "one");
    EXPECT_TRUE(opened_logs.empty());
    EXPECT_EQ(1u, syslog_calls.size());
}

TEST_F(Log, SyslogIsGatedLikeStandardError) {
    syslog_on = 1;
    verbose_msg(0, "hello");
    EXPECT_TRUE(syslog_calls.empty());
}

TEST_F(Log, HandlerSignalsAreBlockedInsideSyslogOnly) {
    syslog_on = 1;
    debug_level = 0;
    verbose_msg(-1, "one");
    debug_msg(0, "where", "what", "two");
    ASSERT_EQ(3u, syslog_calls.size());
    for (const syslog_call& call : syslog_calls)
        EXPECT_TRUE(call.interrupt_blocked);
    EXPECT_FALSE(is_blocked(SIGINT));
}

TEST_F(Log, DebugGoesToSyslogAsTwoRecords) {
    syslog_on = 1;
    debug_level = 0;
    debug_msg(0, "where", "what", "x=%i", 5);
    ASSERT_EQ(2u, syslog_calls.size());
    EXPECT_EQ(log_debug, syslog_calls[0].priority);
    EXPECT_EQ("where", syslog_calls[0].text);
    EXPECT_EQ(log_debug, syslog_calls[1].priority);
    EXPECT_EQ("x=5", syslog_calls[1].text);
}

TEST_F(Log, DyingReportsAndExits) {
    EXPECT_EXIT(kestrel::die(kestrel::exit_memory, "gone: %s", "all"), testing::ExitedWithCode(102),
                "^gone: all\n$");
}

TEST_F(Log, DyingExitsEvenWhenNothingIsShown) {
    verbose_level = -2;
    EXPECT_EXIT(kestrel::die(kestrel::exit_config, "gone"), testing::ExitedWithCode(255), "^$");
}

}  // namespace
