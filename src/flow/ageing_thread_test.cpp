// Tests of the remover thread. It never ends, so each test gives it a process of its own, on clocks
// that the test sets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "tests/support/child.h"
#include "tests/support/queue_fixture.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

constexpr uint64_t second = 1'000'000'000;

std::atomic<uint64_t> wall_ns = 1'700'000'000 * second;
constexpr clock_source set_clocks = {[] { return wall_ns.load(); }, [] { return wall_ns.load(); }};

// A queue of 32 slots with its remover thread, on clocks that the test moves.
class RemoverThread : public testing::Test {
  protected:
    static void start(int32_t inactive_s) {
        set_clock_source(&set_clocks);
        storage_ = temporal_storage_init(64, 88, nullptr, "test");
        queue_ = queue_init(5, 180, inactive_s, storage_, nullptr, 0, 0, nullptr);
    }
    // A lone record comes with the end of a time-out, so the time-outs are short.
    static bool record_comes() {
        for (int tries = 0; tries < 500; ++tries) {
            if (temporal_storage_get(storage_, 10))
                return true;
        }
        return false;
    }
    static void say(const char* text) { (void)!write(STDERR_FILENO, text, strlen(text)); }

    inline static temporal_storage* storage_ = nullptr;
    inline static flow_queue* queue_ = nullptr;
};

TEST_F(RemoverThread, TellsTheTimeoutsInNanoseconds) {
    const std::string said = run_in_child([] {
        verbose_level = 0;
        start(5);
        usleep(50'000);
    });
    EXPECT_EQ(
        "VERBOSE: 0:Temporal storage init: 64 of 88 (mem: 5 KiB) test\n"
        "VERBOSE: 0:timeouts: 180000000000 5000000000\n",
        said);
}

// With an inactive timeout of 0 a pass is one sleep of 10 ms, so three of them take no time.
TEST_F(RemoverThread, EndsIdleFlowsWhenNoPacketsCome) {
    const std::string said = run_in_child([] {
        start(0);
        packet_buffer packet = make_packet({.end = wall_ns - 1});
        queue_update(queue_, &packet.record(), key_of(1, 8));
        say(record_comes() ? "came" : "did not come");
    });
    EXPECT_EQ("came", said);
}

TEST_F(RemoverThread, ServesAFlushRequest) {
    const std::string said = run_in_child([] {
        start(3600);
        packet_buffer packet = make_packet({.end = wall_ns});
        queue_update(queue_, &packet.record(), key_of(1));
        std::atomic_ref(queue_force_flush).store(1);
        const bool came = record_comes();
        for (int i = 0; i < 500 && std::atomic_ref(queue_force_flush).load() != 0; ++i)
            usleep(10'000);
        say(came && std::atomic_ref(queue_force_flush).load() == 0 ? "served" : "not served");
    });
    EXPECT_EQ("Flushing queue\nQueue flushed. 1 records out.\nserved", said);
}

TEST_F(RemoverThread, FollowsTheWallClock) {
    const std::string said = run_in_child([] {
        start(3600);
        wall_ns += 60 * second;
        const uint64_t expected = wall_ns;
        for (int i = 0; i < 500 && queue_->now != expected; ++i)
            usleep(10'000);
        say(queue_->now == expected ? "followed" : "stayed behind");
    });
    EXPECT_EQ("followed", said);
}

TEST_F(RemoverThread, PrintsStatisticsWhenMoreThanTenSecondsHavePassed) {
    const std::string said = run_in_child([] {
        verbose_level = 0;
        start(0);
        usleep(50'000);  // the thread has looked at its clock
        wall_ns += 10 * second;
        usleep(100'000);
        say("ten\n");
        wall_ns += 1 * second;
        usleep(100'000);
    });
    const size_t ten = said.find("ten\n");
    const size_t stat = said.find("VERBOSE: 0:now:     1700000011\nVERBOSE: 0:stat - ");
    ASSERT_NE(std::string::npos, ten);
    ASSERT_NE(std::string::npos, stat);
    EXPECT_LT(ten, stat);
    EXPECT_EQ(std::string::npos, said.substr(0, ten).find("now:"));
    EXPECT_EQ(std::string::npos, said.find("now:", stat + 20));
}

TEST_F(RemoverThread, TellsOfItsChecksAtLevelThree) {
    const std::string said = run_in_child([] {
        verbose_level = 3;
        start(0);
        usleep(100'000);
    });
    EXPECT_NE(std::string::npos, said.find("VERBOSE: 3:queue check start "
                                           "1700000000000000000\nVERBOSE: 3:queue check "
                                           "end 1700000000000000000\n"));
}

}  // namespace
