// Sends 60-byte TCP and UDP frames (64 with the frame check sequence) of a number of flows into an
// interface at a bounded rate. Every flow gets the same number of packets, in a random order that
// repeats, so nothing about the next packet can be guessed from the last one.
//
// usage: sender INTERFACE FLOWS RATE SECONDS
//        sender FILE FLOWS
//
// The second form writes the frames, one of each flow in the order in which they would be sent, to
// a pcap file.

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <vector>

#include "bench/frames.h"

namespace {

constexpr size_t burst = 64;
constexpr int64_t ns_per_second = 1'000'000'000;
constexpr int64_t lag_forgiven_ns = 5'000'000;  // a longer one is not made up for: no long bursts

[[noreturn]] void fail(const char* what) {
    perror(what);
    exit(1);
}

int open_interface(const char* name) {
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    if (fd < 0)
        fail("socket");
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(name));
    if (address.sll_ifindex == 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail(name);
    const int on = 1;
    if (setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on) != 0)
        fail("PACKET_QDISC_BYPASS");
    return fd;
}

std::vector<bench::frame> shuffled_flows(uint32_t count) {
    std::vector<bench::frame> frames;
    frames.reserve(count);
    for (uint32_t n = 0; n < count; ++n)
        frames.push_back(
            bench::ipv4_frame(n % 2 ? bench::transport::udp : bench::transport::tcp, n));
    std::shuffle(frames.begin(), frames.end(), std::mt19937(1));
    return frames;
}

void write_file(const char* path, const std::vector<bench::frame>& frames) {
    constexpr uint32_t file_header[] = {0xA1B2C3D4, 0x00040002, 0, 0, 65535, 1 /* Ethernet */};
    FILE* file = fopen(path, "wb");
    if (file == nullptr || fwrite(file_header, sizeof file_header, 1, file) != 1)
        fail(path);
    for (const bench::frame& each : frames) {
        const uint32_t header[] = {0, 0, each.size, each.size};
        if (fwrite(header, sizeof header, 1, file) != 1 ||
            fwrite(each.bytes.data(), each.size, 1, file) != 1)
            fail(path);
    }
    if (fclose(file) != 0)
        fail(path);
}

int64_t now_ns() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * ns_per_second + time.tv_nsec;
}

void sleep_until(int64_t when_ns) {
    const timespec when{when_ns / ns_per_second, when_ns % ns_per_second};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
}

class burst_sender {
  public:
    burst_sender(int fd, std::vector<bench::frame> frames) : fd_(fd), frames_(std::move(frames)) {
        for (size_t i = 0; i < burst; ++i) {
            messages_[i].msg_hdr.msg_iov = &parts_[i];
            messages_[i].msg_hdr.msg_iovlen = 1;
        }
    }

    // Sends up to burst frames; returns how many the interface took.
    uint64_t send() {
        for (size_t i = 0; i < burst; ++i) {
            bench::frame& frame = frames_[next_];
            parts_[i] = {frame.bytes.data(), frame.size};
            next_ = next_ + 1 == frames_.size() ? 0 : next_ + 1;
        }
        uint64_t sent = 0;
        while (sent < burst) {
            const int taken =
                sendmmsg(fd_, messages_ + sent, static_cast<unsigned>(burst - sent), 0);
            if (taken > 0)
                sent += static_cast<uint64_t>(taken);
            else if (errno != ENOBUFS && errno != EINTR && errno != EAGAIN)
                fail("sendmmsg");
        }
        return sent;
    }

  private:
    int fd_;
    std::vector<bench::frame> frames_;
    size_t next_ = 0;
    mmsghdr messages_[burst]{};
    iovec parts_[burst]{};
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 && argc != 3) {
        fprintf(stderr, "usage: %s INTERFACE FLOWS RATE SECONDS | %s FILE FLOWS\n", argv[0],
                argv[0]);
        return 2;
    }
    const auto flows = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    if (argc == 3) {
        write_file(argv[1], shuffled_flows(flows));
        return 0;
    }
    const int64_t rate = strtoll(argv[3], nullptr, 10);
    const double seconds = strtod(argv[4], nullptr);
    if (flows == 0 || flows > 1u << 24 || rate <= 0 || seconds <= 0) {
        fputs("flows: 1 to 2^24; rate and seconds above 0\n", stderr);
        return 2;
    }
    burst_sender sender(open_interface(argv[1]), shuffled_flows(flows));
    prctl(PR_SET_TIMERSLACK, 1);

    const auto total = static_cast<uint64_t>(seconds * static_cast<double>(rate));
    const int64_t burst_ns = ns_per_second * static_cast<int64_t>(burst) / rate;
    const int64_t start = now_ns();
    int64_t due = start;
    uint64_t sent = 0;
    while (sent < total) {
        sent += sender.send();
        due = std::max(due + burst_ns, now_ns() - lag_forgiven_ns);
        sleep_until(due);
    }
    printf("%lu %.3f\n", sent, static_cast<double>(now_ns() - start) / 1e9);
    return 0;
}
