// How long a lane lets frames gather once its rings are empty. Being woken costs as much as
// hundreds of packets, so where blocks fill quickly the lane sleeps and finds several of them;
// otherwise the kernel wakes it with the next block.
#pragma once

#include <algorithm>
#include <cstdint>

namespace af_packet {

constexpr uint64_t longest_pause_ns = 8'000'000;
// At the rate there was, a pause fills so much of a ring at most.
constexpr uint32_t pause_ring_part = 16;
// It may come faster at any time: so much, about what 10 Gbit/s of small frames bring, does not
// fill the ring in a pause.
constexpr uint64_t sudden_ring_bytes_per_us = 2000;
constexpr uint64_t worthwhile_blocks = 2;

// What was walked since the last question, in all the time up to now.
struct walked {
    uint64_t blocks;
    uint64_t elapsed_ns;
    uint32_t block_bytes;  // of the ring
    uint32_t block_count;
};

// The length of a pause in ns; 0: let the kernel wake us.
constexpr uint64_t pause_ns(const walked& was) {
    if (was.blocks == 0)
        return 0;
    const uint64_t block_ns = was.elapsed_ns / was.blocks;
    const uint64_t ring_bytes = uint64_t{was.block_bytes} * was.block_count;
    const uint64_t pause =
        std::min({block_ns * (was.block_count / pause_ring_part),
                  ring_bytes * 1000 / sudden_ring_bytes_per_us, longest_pause_ns});
    return pause >= worthwhile_blocks * block_ns ? pause : 0;
}

}  // namespace af_packet
