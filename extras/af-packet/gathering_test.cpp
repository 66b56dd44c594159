#include "gathering.h"

#include <gtest/gtest.h>

namespace af_packet {
namespace {

constexpr uint32_t block_bytes = 65'536;
constexpr uint32_t block_count = 256;  // 16 MiB

uint64_t pause_after(uint64_t blocks, uint64_t elapsed_ns, uint32_t count = block_count) {
    return pause_ns({blocks, elapsed_ns, block_bytes, count});
}

TEST(Gathering, WithoutABlockTheKernelWakesTheLane) {
    EXPECT_EQ(0u, pause_after(0, 10'000'000));
}

// 100,000 small packets a second fill a block in 3.7 ms.
TEST(Gathering, TwoBlocksAreWorthAPause) {
    EXPECT_EQ(8'000'000u, pause_after(1, 3'700'000));
    EXPECT_EQ(0u, pause_after(1, 4'100'000));
}

TEST(Gathering, APauseFillsASixteenthOfTheRing) {
    EXPECT_EQ(16u * 100'000, pause_after(10, 1'000'000));
    EXPECT_EQ(16u * 10'000, pause_after(100, 1'000'000));
}

// 4 MiB at 2,000 bytes in a microsecond are 2.1 ms.
TEST(Gathering, ASuddenBurstDoesNotFillASmallRing) {
    EXPECT_EQ(2'097'152u, pause_after(1, 1'000'000, 64));
    EXPECT_EQ(0u, pause_after(1, 1'100'000, 64));
}

TEST(Gathering, AFewBlocksAreNoSixteenth) {
    EXPECT_EQ(0u, pause_after(10, 1'000'000, 15));
}

}  // namespace
}  // namespace af_packet
