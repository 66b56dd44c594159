// The least that a probe on libpcap can do: open the device as the pcap input does, take every
// frame with pcap_next, count it. Prints the count when it is interrupted.

#include <pcap/pcap.h>

#include <csignal>
#include <cstdint>
#include <cstdio>

namespace {

constexpr int snap_length = 96;
constexpr int timeout_ms = 10;

pcap_t* device;
volatile sig_atomic_t stop;

void on_interrupt(int) {
    stop = 1;
    pcap_breakloop(device);  // pcap_next waits for ever when no frame comes
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s INTERFACE\n", argv[0]);
        return 2;
    }
    char error[PCAP_ERRBUF_SIZE] = "";
    device = pcap_open_live(argv[1], snap_length, 1, timeout_ms, error);
    if (!device) {
        fprintf(stderr, "%s\n", error);
        return 1;
    }
    signal(SIGINT, on_interrupt);
    uint64_t frames = 0;
    uint64_t bytes = 0;
    while (!stop) {
        pcap_pkthdr header;
        if (pcap_next(device, &header)) {
            frames += 1;
            bytes += header.len;
        }
    }
    printf("%lu %lu\n", frames, bytes);
    pcap_close(device);
    return 0;
}
