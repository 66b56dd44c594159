// Tests of the ring that carries frames beside their slots.
#include "flow/frame_ring.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kestrel;
using namespace std::chrono_literals;

packet_frame frame_of(const std::string& bytes, uint32_t header_length) {
    return {reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
            header_length};
}

std::string bytes_of(const packet_frame& frame) {
    return {reinterpret_cast<const char*>(frame.data), frame.captured_length};
}

TEST(FrameRing, FramesComeOutWholeAndInOrder) {
    frame_ring ring(1024);
    ring.put(frame_of("first frame", 5));
    ring.put(frame_of("second", 6));
    EXPECT_EQ("first frame", bytes_of(ring.front()));
    EXPECT_EQ(5u, ring.front().header_length);
    ring.drop();
    EXPECT_EQ("second", bytes_of(ring.front()));
    EXPECT_EQ(6u, ring.front().header_length);
}

TEST(FrameRing, AFrameOfMoreThanAQuarterComesOutWithoutItsBytes) {
    frame_ring ring(1024);
    ring.put(frame_of(std::string(240, 'x'), 14));
    ring.put(frame_of(std::string(241, 'y'), 34));
    ring.put(frame_of("next", 4));
    EXPECT_EQ(std::string(240, 'x'), bytes_of(ring.front()));
    ring.drop();
    EXPECT_EQ(nullptr, ring.front().data);
    EXPECT_EQ(241u, ring.front().captured_length);
    EXPECT_EQ(34u, ring.front().header_length);
    ring.drop();
    EXPECT_EQ("next", bytes_of(ring.front()));
}

TEST(FrameRing, AFrameThatIsNotThereComesOutAsNone) {
    frame_ring ring(1024);
    ring.put({nullptr, 0, 0});
    EXPECT_EQ(nullptr, ring.front().data);
}

TEST(FrameRing, HasRoomForFourFramesOfAQuarter) {
    frame_ring ring(1024);
    const std::string quarter(240, 'q');  // with its lengths 256 bytes
    for (int n = 0; n < 4; ++n) {
        EXPECT_TRUE(ring.has_room(frame_of(quarter, 0)));
        ring.put(frame_of(quarter, 0));
    }
    EXPECT_FALSE(ring.has_room(frame_of("", 0)));
    ring.drop();
    EXPECT_TRUE(ring.has_room(frame_of(quarter, 0)));
}

TEST(FrameRing, AFullRingHoldsTheProducerUntilAFrameIsDropped) {
    frame_ring ring(1024);
    for (int n = 0; n < 4; ++n)
        ring.put(frame_of(std::string(240, 'q'), 0));
    std::atomic<bool> is_put = false;
    std::thread producer([&] {
        ring.put(frame_of("late", 1));
        is_put = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(is_put);
    for (int n = 0; n < 4; ++n)
        ring.drop();
    producer.join();
    EXPECT_EQ("late", bytes_of(ring.front()));
}

// Frames of random lengths, each filled with its number, through a ring that wraps all the time.
TEST(FrameRing, RandomLengthsSurviveManyRoundsOfTwoThreads) {
    frame_ring ring(4096);
    std::mt19937 random(20261122);
    std::vector<uint32_t> lengths(20'000);
    for (uint32_t& length : lengths)
        length = static_cast<uint32_t>(random() % 1100);  // some do not fit into a quarter
    std::thread producer([&] {
        for (uint32_t n = 0; n < lengths.size(); ++n)
            ring.put(frame_of(std::string(lengths[n] + 1, static_cast<char>(n)), n));
    });
    for (uint32_t n = 0; n < lengths.size(); ++n) {
        while (!ring.has_frame())
            std::this_thread::yield();
        const packet_frame frame = ring.front();
        EXPECT_EQ(n, frame.header_length);
        EXPECT_EQ(lengths[n] + 1, frame.captured_length);
        const bool fits = 16 + (lengths[n] + 16) / 16 * 16 <= 1024;
        EXPECT_EQ(fits, frame.data != nullptr);
        if (fits) {
            EXPECT_EQ(std::string(lengths[n] + 1, static_cast<char>(n)), bytes_of(frame));
        }
        ring.drop();
    }
    producer.join();
}

}  // namespace
