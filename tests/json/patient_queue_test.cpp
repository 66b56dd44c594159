// A queue that waits for room in a replay, and only as long as that helps.
#include "extras/flow-encoding/patient_queue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>

#include "base/clock.h"
#include "base/outlet.h"
#include "tests/support/outlet_fixture.h"

namespace {

using flow_encoding::patient_queue;

constexpr uint64_t room = 4096;  // for fewer than 50 messages
constexpr uint64_t no_end_ns = UINT64_MAX;

class PatientQueue : public testing::Test {
  protected:
    PatientQueue() {
        script.tend = [this](bool, outlet_wait& wait) {
            wait.timeout_ms = 1;
            return is_read ? 1 : 0;
        };
        script.deliver = [this](outlet_message&) {
            (void)poll(nullptr, 0, 1);
            taken += 1;
            return OUTLET_DONE;
        };
    }
    ~PatientQueue() override {
        is_read = true;
        kestrel::close_outlets();
        kestrel::set_clock_source(nullptr);
    }

    // Returns how many of the messages were taken.
    static int offer(patient_queue& to, int messages) {
        char text[40] = {};
        int accepted = 0;
        for (int n = 0; n < messages; ++n)
            accepted += to.offer({text, sizeof text, 1, 1, 0, 0}) ? 1 : 0;
        return accepted;
    }

    const kestrel::clock_source replay = {[] { return uint64_t{0}; }, [] { return uint64_t{0}; },
                                          nullptr, true};
    std::atomic<bool> is_read = true;
    std::atomic<int> taken = 0;
    kestrel::scripted script;
};

TEST_F(PatientQueue, WaitsInAReplayForAReaderWhoIsSlow) {
    kestrel::set_clock_source(&replay);
    patient_queue queue(no_end_ns);
    queue.open(script.owner(), room, 60);
    EXPECT_EQ(offer(queue, 300), 300);
}

TEST_F(PatientQueue, WaitsForNobodyOutsideOfAReplay) {
    is_read = false;
    patient_queue queue(no_end_ns);
    queue.open(script.owner(), room, 60);
    EXPECT_LT(offer(queue, 300), 50);
}

TEST_F(PatientQueue, LosesItsPatienceOnceAndFindsItAgain) {
    kestrel::set_clock_source(&replay);
    is_read = false;
    patient_queue queue(kestrel::ns_per_second);
    queue.open(script.owner(), room, 60);
    const uint64_t start_ns = kestrel::system_uptime_ns();
    EXPECT_LT(offer(queue, 300), 50);
    const uint64_t waited_ns = kestrel::system_uptime_ns() - start_ns;
    EXPECT_GE(waited_ns, kestrel::ns_per_second);
    EXPECT_LT(waited_ns, 100 * kestrel::ns_per_second);  // 250 and more if each one waited
    is_read = true;
    while (taken < 2)  // of one it may not be known yet that it left
        (void)poll(nullptr, 0, 1);
    EXPECT_EQ(offer(queue, 300), 300);
}

}  // namespace
