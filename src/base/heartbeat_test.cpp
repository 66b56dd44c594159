#include "base/heartbeat.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

class Heartbeat : public testing::Test {
  protected:
    void SetUp() override { own_heartbeat = &heart_; }
    void TearDown() override { own_heartbeat = nullptr; }

    heartbeat heart_;
};

TEST_F(Heartbeat, CountsItsBeats) {
    EXPECT_EQ(0u, heart_.beats());
    heart_.beat();
    heart_.beat();
    EXPECT_EQ(2u, heart_.beats());
}

TEST_F(Heartbeat, WaitsAsLongAsTheOutermostWait) {
    EXPECT_FALSE(heart_.is_waiting());
    {
        const known_wait outer;
        {
            const known_wait inner;
            EXPECT_TRUE(heart_.is_waiting());
        }
        EXPECT_TRUE(heart_.is_waiting());
    }
    EXPECT_FALSE(heart_.is_waiting());
}

TEST_F(Heartbeat, AThreadThatNobodyWatchesWaitsForItself) {
    own_heartbeat = nullptr;
    const known_wait wait;
    EXPECT_FALSE(heart_.is_waiting());
}

}  // namespace
}  // namespace kestrel
