// The floor: the least that a probe with our parser can do. Walks the kernel's ring of an interface
// (TPACKET_V3), or a mapped capture file, in place; parses each frame, and looks its key up in a
// table of 2^19 slots that was fetched ahead. No counters, no ageing, no export, one thread. Prints
// the packets and the flows when it is interrupted or the file ends.
//
// Knows only what the bench gives it: Ethernet, and capture files of this machine's byte order.
//
// usage: bench_floor [-w] [-g] INTERFACE | [-w] -r FILE
//   -w walks only: no parser, no look-up
//   -g lets frames gather for 8 ms whenever the ring is empty, rather than be woken by each block

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/memory.h"
#include "base/prefetch.h"
#include "flow/flow_cache_update.h"
#include "flow/parser.h"
#include "record/layout.h"

namespace {

using namespace kestrel;

constexpr uint32_t slot_count = 1u << 19;
constexpr uint32_t bucket_mask = slot_count - bucket_slots;
constexpr unsigned batch_frames = 64;
constexpr uint32_t snap_length = 136;
constexpr uint32_t block_bytes = 64 * 1024;
constexpr uint32_t block_count = 256;  // 16 MiB
constexpr unsigned block_timeout_ms = 8;
constexpr int wait_ms = 10;

volatile sig_atomic_t stop;
bool walks_only;
bool lets_gather;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// Keys in buckets of eight, one cache line each; what finds no room takes the place of another.
class table {
  public:
    void fetch_ahead(flow_key key) const { prefetch(bucket(key)); }

    void look_up(flow_key key) {
        flow_key* const keys = bucket(key);
        if (keys_equal(keys, key) != 0) [[likely]]
            return;
        const unsigned free = ~keys_occupied(keys) & bucket_full;
        keys[free != 0 ? __builtin_ctz(free) : 0] = key;
        flows_ += 1;
    }

    uint64_t flows() const { return flows_; }

  private:
    flow_key* bucket(flow_key key) const {
        return keys_ + (static_cast<uint32_t>(key) & bucket_mask);
    }

    flow_key* keys_ = static_cast<flow_key*>(malloc_wrapper(slot_count * sizeof(flow_key), 1));
    uint64_t flows_ = 0;
};

// Frames are looked up when a batch is full, or when the walk has nothing more just now.
class batch {
  public:
    void add(const uint8_t* frame, const packet_header& header) {
        packets_ += 1;
        if (walks_only)
            return;
        flow_record& record = records_[count_];
        prepare_slot(record);
        const flow_key key = parse_packet(frame, header, 0, record);
        if (!occupied(key))
            return;
        table_.fetch_ahead(key);
        keys_[count_++] = key;
        if (count_ == batch_frames)
            look_up();
    }

    void look_up() {
        for (unsigned n = 0; n < count_; ++n)
            table_.look_up(keys_[n]);
        count_ = 0;
    }

    void tell() const { std::printf("%lu %lu\n", packets_, table_.flows()); }

  private:
    table table_;
    flow_key keys_[batch_frames];
    flow_record* records_ =
        static_cast<flow_record*>(malloc_wrapper(batch_frames * sizeof(flow_record), 1));
    unsigned count_ = 0;
    uint64_t packets_ = 0;
};

// The ring of the interface, mapped.
struct ring {
    int descriptor;
    uint8_t* memory;
};

ring open_ring(const char* interface) {
    const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
    const int version = TPACKET_V3;
    if (descriptor < 0 ||
        setsockopt(descriptor, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0)
        fail("packet socket");
    const sock_filter cut[] = {{0x06, 0, 0, snap_length}};  // return that many bytes
    const sock_fprog program = {1, const_cast<sock_filter*>(cut)};
    tpacket_req3 request{};
    request.tp_block_size = block_bytes;
    request.tp_block_nr = block_count;
    request.tp_frame_size = 2048;
    request.tp_frame_nr = block_bytes / request.tp_frame_size * block_count;
    request.tp_retire_blk_tov = block_timeout_ms;
    if (setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0 ||
        setsockopt(descriptor, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) != 0)
        fail("ring");
    void* memory = mmap(nullptr, size_t{block_bytes} * block_count, PROT_READ | PROT_WRITE,
                        MAP_SHARED, descriptor, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    if (memory == MAP_FAILED ||
        bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail(interface);
    return {descriptor, static_cast<uint8_t*>(memory)};
}

void take_block(const uint8_t* block, batch& packets) {
    const auto& head = reinterpret_cast<const tpacket_block_desc*>(block)->hdr.bh1;
    const uint8_t* at = block + head.offset_to_first_pkt;
    for (uint32_t left = head.num_pkts; left > 0; --left) {
        const auto& it = *reinterpret_cast<const tpacket3_hdr*>(at);
        const packet_header header = {
            .timestamp = uint64_t{it.tp_sec} * 1'000'000'000 + it.tp_nsec,
            .wire_length = it.tp_len,
            .captured_length = it.tp_snaplen,
            .input_interface = 0,
            .output_interface = 0,
        };
        packets.add(at + it.tp_mac, header);
        at += it.tp_next_offset;
    }
    packets.look_up();
}

void walk_ring(const char* interface, batch& packets) {
    const ring from = open_ring(interface);
    uint32_t number = 0;
    while (!stop) {
        uint8_t* const block = from.memory + size_t{number} * block_bytes;
        auto& status = reinterpret_cast<tpacket_block_desc*>(block)->hdr.bh1.block_status;
        if ((__atomic_load_n(&status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) {
            if (lets_gather)
                (void)usleep(block_timeout_ms * 1000);
            pollfd readable{from.descriptor, POLLIN, 0};
            (void)poll(&readable, 1, wait_ms);  // a signal ends it as well
            continue;
        }
        take_block(block, packets);
        __atomic_store_n(&status, uint32_t{TP_STATUS_KERNEL}, __ATOMIC_RELEASE);
        number = number + 1 == block_count ? 0 : number + 1;
    }
}

// The headers of a capture file and of a record in it (pcap-savefile(5)).
struct file_header {
    uint32_t magic;
    uint32_t rest[5];
};
struct record_header {
    uint32_t seconds;
    uint32_t fraction;
    uint32_t captured;
    uint32_t length;
};
constexpr uint32_t magic_us = 0xA1B2C3D4;
constexpr uint32_t magic_ns = 0xA1B23C4D;

void walk_file(const char* path, batch& packets) {
    const int descriptor = open(path, O_RDONLY);
    struct stat status {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0)
        fail(path);
    const auto size = static_cast<size_t>(status.st_size);
    void* memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, descriptor, 0);
    if (memory == MAP_FAILED || size < sizeof(file_header))
        fail(path);
    const auto* at = static_cast<const uint8_t*>(memory);
    const uint8_t* const end = at + size;
    const uint32_t magic = reinterpret_cast<const file_header*>(at)->magic;
    if (magic != magic_us && magic != magic_ns) {
        std::fprintf(stderr, "%s: not a capture file of this machine's byte order\n", path);
        std::exit(1);
    }
    const uint64_t unit_ns = magic == magic_us ? 1000 : 1;
    for (at += sizeof(file_header); at + sizeof(record_header) <= end;) {
        record_header it;
        std::memcpy(&it, at, sizeof it);
        at += sizeof it;
        if (it.captured > static_cast<size_t>(end - at))
            break;
        const packet_header header = {
            .timestamp = uint64_t{it.seconds} * 1'000'000'000 + it.fraction * unit_ns,
            .wire_length = it.length,
            .captured_length = it.captured,
            .input_interface = 0,
            .output_interface = 0,
        };
        packets.add(at, header);
        at += it.captured;
    }
    packets.look_up();
}

void on_interrupt(int) {
    stop = 1;
}

}  // namespace

int main(int argc, char** argv) {
    int at = 1;
    const auto takes = [&](const char* option) {
        const bool is_there = at < argc && std::strcmp(argv[at], option) == 0;
        at += is_there;
        return is_there;
    };
    walks_only = takes("-w");
    lets_gather = takes("-g");
    const bool is_file = takes("-r");
    if (at + 1 != argc) {
        std::fprintf(stderr, "usage: %s [-w] [-g] INTERFACE | [-w] -r FILE\n", argv[0]);
        return 2;
    }
    (void)std::signal(SIGINT, on_interrupt);
    parser_set_flow_mask(FLOW_MASK_DEFAULT);
    batch packets;
    if (is_file)
        walk_file(argv[at], packets);
    else
        walk_ring(argv[at], packets);
    packets.tell();
    return 0;
}
