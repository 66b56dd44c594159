/* frame_blaster INTERFACE FLOWS FRAMES_PER_SECOND: sends one small UDP frame for each of FLOWS
 * flows, 64 at a time, no faster than the given rate. Flow n comes from 10.0.0.0 + n / 50000 * 256
 * and port 1024 + n % 50000, and carries 18 + n % 7 bytes. Ends with status 1 when a frame cannot
 * be sent.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { BATCH = 64, HEADERS = 14 + 20 + 8, LARGEST = HEADERS + 24 };

static const uint8_t prototype[HEADERS] = {
    2,    0, 0, 0, 0,   2,  2,    0, 0,  0,  0, 1,  0x08, 0x00, /* Ethernet */
    0x45, 0, 0, 0, 0,   0,  0x40, 0, 64, 17, 0, 0,              /* IPv4, don't fragment, UDP */
    10,   0, 0, 0, 198, 51, 100,  1, 0,  0,  0, 53, 0,    0,
    0,    0 /* addresses, UDP without checksum */
};

struct batch {
    uint8_t frame[BATCH][LARGEST];
    struct iovec piece[BATCH];
    struct mmsghdr message[BATCH];
};

static void put16(uint8_t* at, uint32_t value) {
    at[0] = (uint8_t)(value >> 8);
    at[1] = (uint8_t)value;
}

static void set_ip_checksum(uint8_t* ip) {
    uint32_t sum = 0;
    put16(ip + 10, 0);
    for (int i = 0; i < 20; i += 2)
        sum += (uint32_t)ip[i] << 8 | ip[i + 1];
    sum = (sum & 0xFFFF) + (sum >> 16);
    put16(ip + 10, ~((sum & 0xFFFF) + (sum >> 16)));
}

static size_t write_frame(uint8_t* frame, uint32_t flow) {
    const uint32_t payload = 18 + flow % 7;
    uint8_t* ip = frame + 14;
    memcpy(frame, prototype, HEADERS);
    put16(ip + 2, 28 + payload);
    put16(ip + 13, flow / 50000);
    put16(ip + 20, 1024 + flow % 50000);
    put16(ip + 24, 8 + payload);
    set_ip_checksum(ip);
    return HEADERS + payload;
}

static int open_interface(const char* name) {
    const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
    struct sockaddr_ll address = {.sll_family = AF_PACKET,
                                  .sll_ifindex = (int)if_nametoindex(name)};
    if (descriptor < 0 || address.sll_ifindex == 0 ||
        bind(descriptor, (struct sockaddr*)&address, sizeof(address)) != 0) {
        perror(name);
        exit(1);
    }
    return descriptor;
}

static void send_batch(int descriptor, struct batch* batch, unsigned count) {
    for (unsigned sent = 0; sent < count;) {
        const int taken = sendmmsg(descriptor, batch->message + sent, count - sent, 0);
        if (taken >= 0) {
            sent += (unsigned)taken;
        } else if (errno == ENOBUFS || errno == EINTR) {
            usleep(100);
        } else {
            perror("sendmmsg");
            exit(1);
        }
    }
}

/* Sleeps until the frames sent so far fit the rate. */
static void keep_rate(const struct timespec* start, uint64_t frames, uint64_t rate) {
    const uint64_t due_ns = (uint64_t)start->tv_nsec + frames * 1000000000U / rate;
    const struct timespec due = {.tv_sec = start->tv_sec + (time_t)(due_ns / 1000000000U),
                                 .tv_nsec = (long)(due_ns % 1000000000U)};
    (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, NULL); /* early is no harm */
}

int main(int argc, char** argv) {
    static struct batch batch;
    if (argc != 4) {
        fprintf(stderr, "usage: frame_blaster INTERFACE FLOWS FRAMES_PER_SECOND\n");
        return 1;
    }
    const int descriptor = open_interface(argv[1]);
    const uint32_t flows = (uint32_t)strtoul(argv[2], NULL, 10);
    const uint64_t rate = strtoull(argv[3], NULL, 10);
    for (int i = 0; i < BATCH; ++i) {
        batch.piece[i].iov_base = batch.frame[i];
        batch.message[i].msg_hdr.msg_iov = &batch.piece[i];
        batch.message[i].msg_hdr.msg_iovlen = 1;
    }
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (uint32_t flow = 0; flow < flows;) {
        unsigned count = 0;
        for (; count < BATCH && flow < flows; ++count, ++flow)
            batch.piece[count].iov_len = write_frame(batch.frame[count], flow);
        send_batch(descriptor, &batch, count);
        keep_rate(&start, flow, rate);
    }
    close(descriptor);
    return 0;
}
