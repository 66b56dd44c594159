// Writes a pcap file of 60-byte TCP and UDP frames of a number of flows, for measurements on files.
// Every flow gets the same number of packets, in a random order that repeats. With "mixed" every
// third flow is IPv6 and every third one has a VLAN tag. With "other" the frames say that they are
// ARP, so that none belongs to a flow.
//
// usage: make_capture FILE PACKETS FLOWS plain|mixed|other

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "bench/frames.h"

namespace {

constexpr uint64_t packets_per_second = 1'000'000;
constexpr uint32_t first_second = 1'700'000'000;

struct file_header {
    uint32_t magic = 0xA1B2'C3D4;  // microseconds
    uint16_t major = 2;
    uint16_t minor = 4;
    uint32_t zone = 0;
    uint32_t accuracy = 0;
    uint32_t snap_length = 65'535;
    uint32_t link_type = 1;  // Ethernet
};

struct packet_header {
    uint32_t seconds;
    uint32_t microseconds;
    uint32_t captured_length;
    uint32_t wire_length;
};

bench::frame frame_of(uint32_t flow, bool is_mixed) {
    const auto l4 = flow % 2 ? bench::transport::udp : bench::transport::tcp;
    if (!is_mixed || flow % 3 == 0)
        return bench::ipv4_frame(l4, flow);
    return flow % 3 == 1 ? bench::ipv6_frame(l4, flow) : bench::ipv4_frame(l4, flow, true);
}

void make_no_flow(bench::frame& frame) {
    frame.bytes[12] = 0x08;
    frame.bytes[13] = 0x06;
}

std::vector<bench::frame> shuffled_flows(uint32_t count, bool is_mixed, bool is_other) {
    std::vector<bench::frame> frames;
    frames.reserve(count);
    for (uint32_t flow = 0; flow < count; ++flow)
        frames.push_back(frame_of(flow, is_mixed));
    if (is_other)
        std::for_each(frames.begin(), frames.end(), make_no_flow);
    std::shuffle(frames.begin(), frames.end(), std::mt19937(1));
    return frames;
}

bool write_capture(FILE* file, uint64_t packets, const std::vector<bench::frame>& frames) {
    const file_header header;
    bool is_good = fwrite(&header, sizeof header, 1, file) == 1;
    for (uint64_t n = 0; n < packets && is_good; ++n) {
        const bench::frame& frame = frames[n % frames.size()];
        const uint64_t time_us = n * 1'000'000 / packets_per_second;
        const packet_header captured{first_second + static_cast<uint32_t>(time_us / 1'000'000),
                                     static_cast<uint32_t>(time_us % 1'000'000), frame.size,
                                     frame.size};
        is_good = fwrite(&captured, sizeof captured, 1, file) == 1 &&
                  fwrite(frame.bytes.data(), frame.size, 1, file) == 1;
    }
    return is_good;
}

}  // namespace

int main(int argc, char** argv) {
    const bool is_mixed = argc == 5 && strcmp(argv[4], "mixed") == 0;
    const bool is_other = argc == 5 && strcmp(argv[4], "other") == 0;
    const uint64_t packets = argc == 5 ? strtoull(argv[2], nullptr, 10) : 0;
    const uint64_t flows = argc == 5 ? strtoull(argv[3], nullptr, 10) : 0;
    if (packets == 0 || flows == 0 || flows > 1u << 24) {
        fprintf(stderr, "usage: %s FILE PACKETS FLOWS plain|mixed|other (flows: 1 to 2^24)\n",
                argv[0]);
        return 2;
    }
    FILE* file = fopen(argv[1], "wb");
    if (!file ||
        !write_capture(file, packets,
                       shuffled_flows(static_cast<uint32_t>(flows), is_mixed, is_other)) ||
        fclose(file) != 0) {
        perror(argv[1]);
        return 1;
    }
    return 0;
}
