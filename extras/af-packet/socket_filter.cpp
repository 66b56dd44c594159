// Classic BPF programs; see socket_filter.h.
#include "socket_filter.h"

#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <iterator>

namespace af_packet {
namespace {

struct hardware_row {
    uint16_t hardware;
    frame_kind kind;
    const char* name;  // of what is unknown
};

constexpr uint16_t hardware_ip6gre = 823;  // the C library does not name it
constexpr char unknown_name[] = "an unknown link type";

constexpr hardware_row hardware_rows[] = {
    {ARPHRD_ETHER, frame_kind::ethernet, nullptr},
    {ARPHRD_LOOPBACK, frame_kind::ethernet, nullptr},
    {ARPHRD_NONE, frame_kind::bare, nullptr},
    {ARPHRD_RAWIP, frame_kind::bare, nullptr},
    {ARPHRD_PPP, frame_kind::bare, nullptr},
    {ARPHRD_TUNNEL, frame_kind::bare, nullptr},
    {ARPHRD_TUNNEL6, frame_kind::bare, nullptr},
    {ARPHRD_SIT, frame_kind::bare, nullptr},
    {ARPHRD_IPGRE, frame_kind::bare, nullptr},
    {hardware_ip6gre, frame_kind::bare, nullptr},
    {ARPHRD_IEEE80211, frame_kind::unknown, "IEEE802_11"},
    {ARPHRD_IEEE80211_PRISM, frame_kind::unknown, "PRISM_HEADER"},
    {ARPHRD_IEEE80211_RADIOTAP, frame_kind::unknown, "IEEE802_11_RADIO"},
};

const hardware_row* find_row(uint16_t hardware) {
    const auto* const row = std::find_if(std::begin(hardware_rows), std::end(hardware_rows),
                                         [=](auto& it) { return it.hardware == hardware; });
    return row != std::end(hardware_rows) ? row : nullptr;
}

// A handle that knows what expressions mean on the device. Where the kernel takes VLAN tags out of
// the frames, only a live one does.
pcap_t* open_handle(frame_kind kind, const char* device, int snap, std::string& reason) {
    if (kind == frame_kind::bare)
        return pcap_open_dead(DLT_RAW, snap);
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* const handle = pcap_create(device, error);
    if (!handle) {
        reason = error;
        return nullptr;
    }
    (void)pcap_set_snaplen(handle, snap);  // refused by active handles only
    (void)pcap_set_buffer_size(handle, 1 << 16);
    if (pcap_activate(handle) >= 0)
        return handle;
    reason = pcap_geterr(handle);
    pcap_close(handle);
    return nullptr;
}

constexpr uint32_t ancillary(int32_t what) {
    return static_cast<uint32_t>(SKF_AD_OFF + what);
}

}  // namespace

frame_kind kind_of(uint16_t hardware) {
    const hardware_row* const row = find_row(hardware);
    return row ? row->kind : frame_kind::unknown;
}

const char* name_of(uint16_t hardware) {
    const hardware_row* const row = find_row(hardware);
    return row && row->name ? row->name : unknown_name;
}

bool is_loopback(uint16_t hardware) {
    return hardware == ARPHRD_LOOPBACK;
}

bool compile_expression(const std::string& expression, frame_kind kind, const char* device,
                        uint32_t snap_bytes, filter_program& program, std::string& reason) {
    pcap_t* const handle = open_handle(kind, device, static_cast<int>(snap_bytes), reason);
    if (!handle)
        return false;
    bpf_program compiled{};
    const bool is_good =
        pcap_compile(handle, &compiled, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
    if (is_good) {
        for (const bpf_insn* it = compiled.bf_insns; it != compiled.bf_insns + compiled.bf_len;
             ++it)
            program.push_back({it->code, it->jt, it->jf, it->k});
        pcap_freecode(&compiled);
    } else {
        reason = pcap_geterr(handle);
    }
    pcap_close(handle);
    return is_good;
}

filter_program take_all(uint32_t snap_bytes) {
    return {BPF_STMT(BPF_RET | BPF_K, snap_bytes)};
}

// Jumps are relative, so those of the program stay as they are.
filter_program put_in_front(const filter_program& program, uint32_t sampling, bool is_loopback) {
    const sock_filter no_outgoing[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ancillary(SKF_AD_PKTTYPE)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_filter one_in_n[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ancillary(SKF_AD_RANDOM)),
        BPF_STMT(BPF_ALU | BPF_MOD | BPF_K, sampling),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    filter_program all;
    if (is_loopback)
        std::ranges::copy(no_outgoing, std::back_inserter(all));
    if (sampling > 1)
        std::ranges::copy(one_in_n, std::back_inserter(all));
    // Programs begin with nothing in the accumulator.
    if (!all.empty())
        all.push_back(BPF_STMT(BPF_LD | BPF_IMM, 0));
    std::ranges::copy(program, std::back_inserter(all));
    return all;
}

}  // namespace af_packet
