// Ethernet frames for measurements: one builder, headers in the order in which they lie on the
// wire. Used by the benchmarks and by the sender; knows nothing of the program.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace bench {

inline constexpr size_t frame_min = 60;  // a 64-byte frame without its frame check sequence
inline constexpr size_t frame_room = 128;

struct frame {
    std::array<uint8_t, frame_room> bytes{};
    uint32_t size = 0;

    void u8(unsigned value) { bytes[size++] = static_cast<uint8_t>(value); }
    void u16(unsigned value) {
        u8(value >> 8);
        u8(value & 0xFF);
    }
    void u32(uint32_t value) {
        u16(value >> 16);
        u16(value & 0xFFFF);
    }
    void pad_to(uint32_t wanted) {
        if (size < wanted)
            size = wanted;
    }
};

// Values: IP protocol numbers.
enum class transport : unsigned { tcp = 6, udp = 17 };

// Mixes the bits of a number (the finaliser of splitmix64).
inline uint64_t mix(uint64_t x) {
    x += 0x9E37'79B9'7F4A'7C15;
    x = (x ^ (x >> 30)) * 0xBF58'476D'1CE4'E5B9;
    x = (x ^ (x >> 27)) * 0x94D0'49BB'1331'11EB;
    return x ^ (x >> 31);
}

inline void put_ethernet(frame& to, bool with_vlan, unsigned type) {
    to.u16(0x0200);  // destination 02:00:00:00:00:02: locally administered, nobody's
    to.u32(0x0000'0002);
    to.u16(0x0200);
    to.u32(0x0000'0001);
    if (with_vlan) {
        to.u16(0x8100);
        to.u16(42);
    }
    to.u16(type);
}

inline unsigned ipv4_checksum(const uint8_t* header) {
    unsigned sum = 0;
    for (size_t at = 0; at < 20; at += 2)
        sum += (unsigned{header[at]} << 8) + header[at + 1];
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return ~sum & 0xFFFF;
}

// IPv4 header of a packet of length bytes in all.
inline void put_ipv4(frame& to, transport l4, unsigned length, uint32_t source,
                     uint32_t destination) {
    const uint32_t at = to.size;
    to.u16(0x4500);
    to.u16(length);
    to.u32(0x0000'4000);  // no identification, don't fragment
    to.u16(64u << 8 | static_cast<unsigned>(l4));
    to.u16(0);
    to.u32(source);
    to.u32(destination);
    const unsigned sum = ipv4_checksum(to.bytes.data() + at);
    to.bytes[at + 10] = static_cast<uint8_t>(sum >> 8);
    to.bytes[at + 11] = static_cast<uint8_t>(sum);
}

inline void put_ipv6(frame& to, transport l4, unsigned payload, uint64_t n) {
    to.u32(0x6000'0000);
    to.u16(payload);
    to.u16(static_cast<unsigned>(l4) << 8 | 64u);
    for (uint32_t side = 1; side <= 2; ++side) {  // 2001:db8::/32 is for documentation
        to.u32(0x2001'0DB8);
        to.u32(side);
        to.u32(static_cast<uint32_t>(n >> 32));
        to.u32(static_cast<uint32_t>(n));
    }
}

inline void put_transport(frame& to, transport l4, unsigned source_port, unsigned destination_port,
                          unsigned udp_length) {
    to.u16(source_port);
    to.u16(destination_port);
    if (l4 == transport::udp) {
        to.u16(udp_length);
        to.u16(0);  // no checksum
        return;
    }
    to.u32(1);
    to.u32(1);
    to.u16(0x5010);  // 20 bytes of header, ACK
    to.u16(0xFFFF);
    to.u32(0);
}

// Ports that no program treats in a way of its own: nfpcapd, for one, ends a flow of DNS with every
// packet.
inline unsigned destination_port(transport l4) {
    return l4 == transport::tcp ? 443 : 5004;
}

// The frame of flow n: 60 bytes, its addresses and ports made of n.
inline frame ipv4_frame(transport l4, uint32_t n, bool with_vlan = false) {
    const uint64_t random = mix(n);
    const unsigned ip_length = frame_min - 14 - (with_vlan ? 4 : 0);
    frame made;
    put_ethernet(made, with_vlan, 0x0800);
    put_ipv4(made, l4, ip_length, 0x0A00'0000 + n,
             0xAC10'0000 + static_cast<uint32_t>(random & 0xFFFF));
    put_transport(made, l4, 1024 + static_cast<unsigned>(random >> 16) % 60'000,
                  destination_port(l4), ip_length - 20);
    made.pad_to(frame_min);
    return made;
}

inline frame ipv6_frame(transport l4, uint32_t n) {
    const uint64_t random = mix(n);
    const unsigned payload = l4 == transport::tcp ? 20 : 8;
    frame made;
    put_ethernet(made, false, 0x86DD);
    put_ipv6(made, l4, payload, random);
    put_transport(made, l4, 1024 + static_cast<unsigned>(random >> 16) % 60'000,
                  destination_port(l4), payload);
    made.pad_to(frame_min);
    return made;
}

}  // namespace bench
