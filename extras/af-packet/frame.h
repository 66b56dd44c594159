// From a frame of the ring to one of a batch: the tag that the kernel took out put back, an
// Ethernet header where there is none, in place. Cost: the frame's first 14 bytes are looked at;
// for a frame with a tag they are moved by four.
#pragma once

#include <kestrelexp/link.h>
#include <kestrelexp/plugin.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>

#include <cstring>

namespace af_packet {

// Bytes that are free in front of each frame, after what the kernel tells of it. A tag takes four.
enum { frame_reserve = 8 };

// What is unusual on the interface that frames come from.
struct frame_limits {
    uint32_t mtu;  // bytes after the Ethernet header; a longer frame is several that were joined
};

enum : uint32_t {
    ethernet_addresses = 12,
    ethernet_header = LINK_ETHERNET_HEADER,
    tag_size = 4,
};

enum : uint16_t {
    type_tag = 0x8100,          // IEEE 802.1Q
    type_service_tag = 0x88A8,  // IEEE 802.1ad
    type_old_tag = 0x9100,      // stacked tags from before
    type_old_tag_2 = 0x9200,
};

inline uint16_t load_type(const uint8_t* at) {
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

inline void store_type(uint8_t* at, uint16_t type) {
    at[0] = static_cast<uint8_t>(type >> 8);
    at[1] = static_cast<uint8_t>(type);
}

inline bool is_tag(uint16_t type) {
    return type == type_tag || type == type_service_tag || type == type_old_tag ||
           type == type_old_tag_2;
}

// Puts a tag after the addresses: the frame begins four bytes earlier then.
inline uint8_t* put_tag_back(uint8_t* frame, uint16_t type, uint16_t control) {
    uint8_t addresses[ethernet_addresses];
    std::memcpy(addresses, frame, sizeof addresses);
    frame -= tag_size;
    std::memcpy(frame, addresses, sizeof addresses);
    store_type(frame + ethernet_addresses, type);
    store_type(frame + ethernet_addresses + 2, control);
    return frame;
}

// Bytes of the tags that a frame begins with.
inline uint32_t tag_bytes(const uint8_t* frame, uint32_t captured) {
    uint32_t at = ethernet_addresses;
    while (at + 2 <= captured && is_tag(load_type(frame + at)))
        at += tag_size;
    return at - ethernet_addresses;
}

// The Ethernet header of a bare packet: no addresses, the type that the kernel tells.
inline uint8_t* put_header_in_front(uint8_t* packet, uint16_t type_in_network_order) {
    uint8_t* const frame = packet - ethernet_header;
    std::memset(frame, 0, ethernet_addresses);
    std::memcpy(frame + ethernet_addresses, &type_in_network_order, sizeof type_in_network_order);
    return frame;
}

// The status bit says whether a tag was taken out, not the tag's value: there is a VLAN 0.
inline uint16_t removed_tag_type(const tpacket3_hdr& header) {
    return (header.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? header.hv1.tp_vlan_tpid
                                                               : uint16_t{type_tag};
}

// As packet headers carry it; 0: larger than they can.
inline uint16_t interface_number(int index) {
    return static_cast<uint16_t>(index <= UINT16_MAX ? index : 0);
}

// Returns 1 when the frame is longer than the interface can have received it, else 0.
inline uint32_t describe_frame(tpacket3_hdr& header, const frame_limits& limits,
                               input_frame& told) {
    auto* const base = reinterpret_cast<uint8_t*>(&header);
    sockaddr_ll link;
    std::memcpy(&link, base + TPACKET_ALIGN(sizeof header), sizeof link);
    uint8_t* frame = base + header.tp_mac;
    uint32_t captured = header.tp_snaplen;
    uint32_t wire = header.tp_len;
    uint32_t joined = 0;
    if (link.sll_hatype == ARPHRD_ETHER || link.sll_hatype == ARPHRD_LOOPBACK) [[likely]] {
        if (wire > limits.mtu + ethernet_header) [[unlikely]]
            joined = wire > limits.mtu + ethernet_header + tag_bytes(frame, captured);
        if ((header.tp_status & TP_STATUS_VLAN_VALID) != 0 && captured >= ethernet_addresses) {
            frame = put_tag_back(frame, removed_tag_type(header),
                                 static_cast<uint16_t>(header.hv1.tp_vlan_tci));
            captured += tag_size;
            wire += tag_size;
        }
        if (captured >= ethernet_header && is_tag(load_type(frame + ethernet_addresses)))
            link_rewrite_service_tags(frame, captured);
    } else {
        const uint32_t skipped = header.tp_net - header.tp_mac;  // of a header of another kind
        frame = put_header_in_front(base + header.tp_net, link.sll_protocol);
        captured = captured > skipped ? captured - skipped + ethernet_header : 0;
        wire = wire > skipped ? wire - skipped + ethernet_header : ethernet_header;
        joined = wire > limits.mtu + ethernet_header;
    }
    const bool is_sent = link.sll_pkttype == PACKET_OUTGOING;
    const uint16_t index = interface_number(link.sll_ifindex);
    told.header.timestamp = uint64_t{header.tp_sec} * 1'000'000'000 + header.tp_nsec;
    told.header.wire_length = wire;
    told.header.captured_length = captured;
    told.header.input_interface = is_sent ? uint16_t{0} : index;
    told.header.output_interface = is_sent ? index : uint16_t{0};
    told.data = frame;
    return joined;
}

}  // namespace af_packet
