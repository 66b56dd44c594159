// Socket options in their order, and the walk; see packet_ring.h.
//
// Cost of a frame: a look at its header, which lies in front of it.
#include "packet_ring.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>

namespace af_packet {
namespace {

// With small blocks many of them fit in, so that the ring lasts for long at low rates, when each is
// handed over with few frames.
constexpr uint32_t block_least_bytes = 64 * 1024;
// What the kernel puts in front of a block's frames, and of each frame, at most.
constexpr uint32_t block_overhead = 1024;
constexpr uint32_t block_least_count = 4;

template <typename T>
bool set(int descriptor, int option, const T& value) {
    return setsockopt(descriptor, SOL_PACKET, option, &value, sizeof value) == 0;
}

ring_fault fault_of(int error) {
    switch (error) {
        case EPERM:
        case EACCES:
            return ring_fault::no_right;
        case ENOMEM:
            return ring_fault::no_memory;
        case ENODEV:
        case ENXIO:
            return ring_fault::no_interface;
        default:
            return ring_fault::other;
    }
}

// Frames that follow one another are often of one length. What the kernel has just written lies in
// another processor's cache: the three lines of a frame and what is told of it, some frames ahead.
inline void fetch_ahead(const uint8_t* frame, uint32_t length) {
    constexpr uint32_t frames_ahead = 6;
    constexpr uint32_t line = 64;
    const uint8_t* const ahead = frame + size_t{frames_ahead} * length;
    __builtin_prefetch(ahead);
    __builtin_prefetch(ahead + line);
    __builtin_prefetch(ahead + size_t{2} * line);
}

}  // namespace

packet_ring::~packet_ring() {
    if (memory_ != nullptr)
        (void)munmap(memory_, uint64_t{block_bytes_} * block_count_);
    if (descriptor_ >= 0)
        (void)close(descriptor_);
}

// For no protocol: otherwise it would take the frames of all interfaces until it is bound.
ring_fault packet_ring::open(uint64_t ring_bytes, uint32_t snap_bytes) {
    descriptor_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0)
        return fault_of(errno);
    if (const ring_fault fault = map(ring_bytes, snap_bytes); fault != ring_fault::none)
        return fault;
    return attach_filter(take_nothing());
}

ring_fault packet_ring::map(uint64_t ring_bytes, uint32_t snap_bytes) {
    block_bytes_ = std::max(block_least_bytes, std::bit_ceil(snap_bytes + block_overhead));
    block_count_ = std::max(block_least_count, static_cast<uint32_t>(ring_bytes / block_bytes_));
    tpacket_req3 request{};
    request.tp_block_size = block_bytes_;
    request.tp_block_nr = block_count_;
    request.tp_frame_size = block_bytes_;  // has no meaning in this version
    request.tp_frame_nr = block_count_;
    request.tp_retire_blk_tov = block_timeout_ms;
    if (!set(descriptor_, PACKET_VERSION, int{TPACKET_V3}) ||
        !set(descriptor_, PACKET_RESERVE, uint32_t{frame_reserve}) ||
        !set(descriptor_, PACKET_RX_RING, request))
        return fault_of(errno);
    void* const memory = mmap(nullptr, uint64_t{block_bytes_} * block_count_,
                              PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_, 0);
    if (memory == MAP_FAILED)
        return fault_of(errno == EAGAIN ? ENOMEM : errno);
    memory_ = static_cast<uint8_t*>(memory);
    return ring_fault::none;
}

ring_fault packet_ring::bind(int index, bool is_promiscuous) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = index;
    if (::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return fault_of(errno);
    if (is_promiscuous) {
        packet_mreq request{};
        request.mr_ifindex = index;
        request.mr_type = PACKET_MR_PROMISC;
        // What it answers changes nothing: then there are only the frames that are for us.
        (void)set(descriptor_, PACKET_ADD_MEMBERSHIP, request);
    }
    return ring_fault::none;
}

void packet_ring::leave(int index) const {
    packet_mreq request{};
    request.mr_ifindex = index;
    request.mr_type = PACKET_MR_PROMISC;
    (void)set(descriptor_, PACKET_DROP_MEMBERSHIP, request);  // perhaps it never was a member
}

int packet_ring::join(int group) {
    constexpr int number_bits = 0xFFFF;
    const int mode =
        group == new_group ? PACKET_FANOUT_HASH | PACKET_FANOUT_FLAG_UNIQUEID : PACKET_FANOUT_HASH;
    const int wanted = (group == new_group ? 0 : group) | mode << 16;
    if (!set(descriptor_, PACKET_FANOUT, wanted))
        return -1;
    int joined = 0;
    socklen_t size = sizeof joined;
    if (getsockopt(descriptor_, SOL_PACKET, PACKET_FANOUT, &joined, &size) != 0)
        return -1;
    return joined & number_bits;
}

filter_program packet_ring::take_nothing() {
    return {BPF_STMT(BPF_RET | BPF_K, 0)};
}

ring_fault packet_ring::attach_filter(const filter_program& program) const {
    const sock_fprog attached = {static_cast<unsigned short>(program.size()),
                                 const_cast<sock_filter*>(program.data())};
    return setsockopt(descriptor_, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached) == 0
               ? ring_fault::none
               : ring_fault::no_program;
}

bool packet_ring::enter_block() {
    if (held_ == block_count_)
        return false;  // all of them wait to be handed back
    const auto& head = reinterpret_cast<const tpacket_block_desc*>(block(block_))->hdr.bh1;
    if ((__atomic_load_n(&head.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0)
        return false;
    left_ = head.num_pkts;
    next_ = block(block_) + head.offset_to_first_pkt;
    return true;
}

uint32_t packet_ring::take(input_frame* frames, uint32_t limit, const frame_limits& limits,
                           uint64_t& joined) {
    uint32_t count = 0;
    while (count < limit && (left_ > 0 || enter_block())) {
        for (const uint32_t end = std::min(limit, count + left_); count < end; --left_) {
            auto* const header = reinterpret_cast<tpacket3_hdr*>(next_);
            fetch_ahead(next_, header->tp_next_offset);
            next_ += header->tp_next_offset;
            joined += describe_frame(*header, limits, frames[count++]);
        }
        if (left_ == 0) {
            block_ = block_ + 1 == block_count_ ? 0 : block_ + 1;
            held_ += 1;
            blocks_ += 1;
        }
    }
    taken_ += count;
    return count;
}

void packet_ring::give_back() {
    for (; held_ > 0; --held_) {
        const uint32_t number = block_ >= held_ ? block_ - held_ : block_ + block_count_ - held_;
        auto& head = reinterpret_cast<tpacket_block_desc*>(block(number))->hdr.bh1;
        __atomic_store_n(&head.block_status, uint32_t{TP_STATUS_KERNEL}, __ATOMIC_RELEASE);
    }
}

// Its numbers begin anew with each question. Received frames have those that were dropped.
void packet_ring::count() {
    tpacket_stats_v3 numbers{};
    socklen_t size = sizeof numbers;
    if (getsockopt(descriptor_, SOL_PACKET, PACKET_STATISTICS, &numbers, &size) != 0)
        return;
    received_ += numbers.tp_packets;
    dropped_ += numbers.tp_drops;
}

int packet_ring::take_error() const {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : 0;
}

}  // namespace af_packet
