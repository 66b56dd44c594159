// What the parameters ask for. Main thread, while the program starts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace af_packet {

struct settings {
    std::vector<std::string> devices;
    std::string expression;  // a capture expression; empty: every frame
    uint32_t lanes = 1;
    int32_t group = -1;  // of sockets that share the frames of the first device; -1: one of our own
    uint64_t ring_bytes = 0;  // of each lane and device
    uint32_t sampling = 0;    // one frame in so many, 0: all
    bool is_promiscuous = true;
    uint32_t snap_bytes = 0;  // of each frame, as it lies in the ring
};

// Cuts the parameters up. needs_frames: whole frames are wanted. Returns false when they make no
// sense, and has said why.
bool read_settings(const char* params, bool needs_frames, settings& wanted);

}  // namespace af_packet
