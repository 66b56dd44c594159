// The least that a probe on libpcap can do: open the device as the pcap input does, take every
// frame with pcap_next_ex, count it. Prints the count when it is interrupted. With -r it reads a
// capture file to its end.
//
// usage: bare_pcap INTERFACE | -r FILE

#include <pcap/pcap.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr int snap_length = 96;
constexpr int timeout_ms = 10;

pcap_t* device;
volatile sig_atomic_t stop;

void on_interrupt(int) {
    stop = 1;
    pcap_breakloop(device);  // pcap_next_ex waits for ever when no frame comes
}

pcap_t* open_input(int argc, char** argv, char* error) {
    if (argc == 3 && strcmp(argv[1], "-r") == 0)
        return pcap_open_offline(argv[2], error);
    return pcap_open_live(argv[1], snap_length, 1, timeout_ms, error);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: %s INTERFACE | -r FILE\n", argv[0]);
        return 2;
    }
    char error[PCAP_ERRBUF_SIZE] = "";
    device = open_input(argc, argv, error);
    if (!device) {
        fprintf(stderr, "%s\n", error);
        return 1;
    }
    signal(SIGINT, on_interrupt);
    uint64_t frames = 0;
    uint64_t bytes = 0;
    pcap_pkthdr* header;
    const u_char* frame;
    int result = 0;
    while (!stop && (result = pcap_next_ex(device, &header, &frame)) >= 0) {
        if (result == 1) {
            frames += 1;
            bytes += header->len;
        }
    }
    printf("%lu %lu\n", frames, bytes);
    pcap_close(device);
    return 0;
}
