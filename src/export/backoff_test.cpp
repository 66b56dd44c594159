// Pauses between attempts to connect.
#include "export/backoff.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

constexpr uint32_t middle = 0x80000000;
constexpr uint64_t quarter_s = ns_per_second / 4;

TEST(Backoff, DoublesUpToAMinute) {
    const uint64_t expected_s[] = {1, 2, 4, 8, 16, 32, 60, 60, 60};
    for (unsigned failures = 0; failures < 9; ++failures)
        EXPECT_NEAR(static_cast<double>(backoff_ns(failures, middle)),
                    static_cast<double>(expected_s[failures] * ns_per_second), 1000.0);
    EXPECT_EQ(backoff_ns(0xFFFFFFFF, middle), backoff_ns(6, middle));
}

TEST(Backoff, IsAQuarterShorterOrLonger) {
    EXPECT_EQ(backoff_ns(0, 0), 3 * quarter_s);
    EXPECT_NEAR(static_cast<double>(backoff_ns(0, 0xFFFFFFFF)), 5.0 * quarter_s, 1000.0);
    EXPECT_LE(backoff_ns(0, 0xFFFFFFFF), 5 * quarter_s);
    EXPECT_EQ(backoff_ns(20, 0), 45 * ns_per_second);
    EXPECT_LE(backoff_ns(20, 0xFFFFFFFF), 75 * ns_per_second);
    EXPECT_GT(backoff_ns(20, 0xFFFFFFFF), 74 * ns_per_second);
}

TEST(Backoff, SpreadsEvenly) {
    EXPECT_NEAR(static_cast<double>(backoff_ns(2, 0x40000000)), 3.5e9, 1000.0);
    EXPECT_NEAR(static_cast<double>(backoff_ns(2, 0xC0000000)), 4.5e9, 1000.0);
}

}  // namespace
}  // namespace kestrel
