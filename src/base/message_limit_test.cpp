#include "base/message_limit.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

constexpr uint64_t second = 1'000'000'000;

TEST(message_limit, says_the_first_one_at_once) {
    message_limit limit;
    EXPECT_EQ(1u, limit.count(5 * second));
}

TEST(message_limit, says_one_in_ten_seconds_with_the_number_of_those_before_it) {
    message_limit limit;
    EXPECT_EQ(1u, limit.count(100 * second));
    EXPECT_EQ(0u, limit.count(101 * second));
    EXPECT_EQ(0u, limit.count(110 * second - 1));
    EXPECT_EQ(3u, limit.count(110 * second));
    EXPECT_EQ(0u, limit.count(119 * second));
    EXPECT_EQ(2u, limit.count(500 * second));
}

}  // namespace
}  // namespace kestrel
