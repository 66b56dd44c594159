// Link types as a table, the one function that puts an Ethernet header in place of another, and
// tags of providers. Any thread; allocates nothing and keeps nothing. Cost of a frame: a copy of
// its captured bytes; of one with tags, a look at each.
#include "kestrelexp/link.h"

#include <pcap/dlt.h>

#include <algorithm>
#include <cstring>

#include "base/wire.h"

namespace kestrel {
namespace {

// Where the header says what follows it.
enum class protocol_form : uint8_t {
    ethertype,   // an EtherType
    family,      // an address family, 32 bits, in the byte order of the machine that captured
    ppp,         // RFC 1661: one or two bytes, perhaps after an address and a control byte
    ip_version,  // nowhere: the first four bits of the packet tell
    ipv4,        // nowhere: always the same
    ipv6,
};

}  // namespace
}  // namespace kestrel

struct link_format {
    int32_t link_type;
    kestrel::protocol_form form;
    uint8_t size;               // bytes of the header; of PPP at least
    uint8_t protocol_at;        // offset
    uint8_t address_length_at;  // offset of one byte; 0: the header has no source address
    uint8_t address_at;         // offset
};

namespace kestrel {
namespace {

using enum protocol_form;

// Headers as www.tcpdump.org/linktypes.html has them. Of the length of a LINUX_SLL address, 16
// bits, the second byte is enough: there is room for eight bytes.
constexpr link_format formats[] = {
    {DLT_NULL, family, 4, 0, 0, 0},
    {DLT_LOOP, family, 4, 0, 0, 0},
    {DLT_PPP, ppp, 1, 0, 0, 0},
    {DLT_PPP_SERIAL, ppp, 1, 0, 0, 0},
    {DLT_RAW, ip_version, 0, 0, 0, 0},
    {DLT_IPV4, ipv4, 0, 0, 0, 0},
    {DLT_IPV6, ipv6, 0, 0, 0, 0},
    {DLT_LINUX_SLL, ethertype, 16, 14, 5, 6},
    {DLT_LINUX_SLL2, ethertype, 20, 0, 11, 12},
};

constexpr uint16_t ethertype_none = 0;
constexpr uint16_t ethertype_ipv4 = 0x0800;
constexpr uint16_t ethertype_ipv6 = 0x86DD;
constexpr uint16_t ethertype_mpls = 0x8847;

constexpr uint32_t mac_size = 6;
constexpr uint32_t source_at = 6;
constexpr uint32_t ethertype_at = 12;

// What stands in place of the header.
struct network {
    uint16_t ethertype;
    uint32_t header_size;
};

uint16_t of_version(uint8_t first_byte) {
    const int version = first_byte >> 4;
    return version == 4 ? ethertype_ipv4 : version == 6 ? ethertype_ipv6 : ethertype_none;
}

// Families are small numbers: in the wrong byte order they are large ones. IPv6 has a number of its
// own on Linux, on NetBSD and OpenBSD, on FreeBSD, and on macOS.
uint16_t of_family(uint32_t number) {
    switch (number > 0xFFFF ? byte_swap(number) : number) {
        case 2:
            return ethertype_ipv4;
        case 10:
        case 24:
        case 28:
        case 30:
            return ethertype_ipv6;
        default:
            return ethertype_none;
    }
}

uint16_t of_ppp(uint16_t protocol) {
    switch (protocol) {
        case 0x0021:
            return ethertype_ipv4;
        case 0x0057:
            return ethertype_ipv6;
        case 0x0281:
            return ethertype_mpls;
        default:
            return ethertype_none;
    }
}

// Address and control byte may be left out (RFC 1662 section 3.2), and so may the first byte of a
// protocol that is zero: the last byte of every protocol is odd, the one before it even (RFC 1661
// sections 2 and 6.5). A header that is cut gives one that is longer than the frame.
network ppp_network(const uint8_t* frame, uint32_t captured) {
    const uint32_t at = captured >= 2 && frame[0] == 0xFF && frame[1] == 0x03 ? 2 : 0;
    if (at < captured && frame[at] % 2 == 1)
        return {of_ppp(frame[at]), at + 1};
    if (at + 2 > captured)
        return {ethertype_none, at + 2};
    return {of_ppp(load_be16(frame + at)), at + 2};
}

// The frame has format.size bytes at least.
network network_of(const link_format& format, const uint8_t* frame, uint32_t captured) {
    switch (format.form) {
        case ethertype:
            return {load_be16(frame + format.protocol_at), format.size};
        case family:
            return {of_family(load_be32(frame + format.protocol_at)), format.size};
        case ppp:
            return ppp_network(frame, captured);
        case ip_version:
            return {captured > 0 ? of_version(frame[0]) : ethertype_none, format.size};
        case ipv4:
            return {ethertype_ipv4, format.size};
        case ipv6:
            return {ethertype_ipv6, format.size};
    }
    __builtin_unreachable();
}

void write_ethernet_header(const link_format& format, const uint8_t* frame, uint16_t type,
                           uint8_t* to) {
    std::memset(to, 0, LINK_ETHERNET_HEADER);
    if (format.address_length_at != 0 && frame[format.address_length_at] == mac_size)
        std::memcpy(to + source_at, frame + format.address_at, mac_size);
    store_native(to + ethertype_at, byte_swap(type));
}

constexpr uint16_t type_tag = 0x8100;
constexpr uint16_t type_service_tag = 0x88A8;
constexpr uint32_t tag_size = 4;

bool is_tag(uint16_t type) {
    return type == type_tag || type == type_service_tag || type == 0x9100 || type == 0x9200;
}

// Where the type of the next provider's tag stands, from this type on; 0: there is none.
uint32_t find_service_tag(const uint8_t* frame, uint32_t captured, uint32_t at) {
    for (; at + sizeof(uint16_t) <= captured; at += tag_size) {
        const uint16_t type = load_be16(frame + at);
        if (type == type_service_tag)
            return at;
        if (!is_tag(type))
            return 0;
    }
    return 0;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const link_format* link_format_find(int link_type) {
    const auto* const row = std::find_if(std::begin(formats), std::end(formats),
                                         [=](auto& it) { return it.link_type == link_type; });
    return row != std::end(formats) ? row : nullptr;
}

const uint8_t* link_to_ethernet(const link_format* format, const uint8_t* frame,
                                packet_header* header, uint8_t* buffer, uint32_t buffer_size) {
    const uint32_t captured = header->captured_length;
    const network found = captured >= format->size ? network_of(*format, frame, captured)
                                                   : network{ethertype_none, format->size};
    header->wire_length = LINK_ETHERNET_HEADER +
                          (header->wire_length - std::min(header->wire_length, found.header_size));
    if (captured < found.header_size) {
        header->captured_length = 0;
        return buffer;
    }
    write_ethernet_header(*format, frame, found.ethertype, buffer);
    const uint32_t copied =
        std::min(captured - found.header_size, buffer_size - LINK_ETHERNET_HEADER);
    std::memcpy(buffer + LINK_ETHERNET_HEADER, frame + found.header_size, copied);
    header->captured_length = LINK_ETHERNET_HEADER + copied;
    return buffer;
}

int link_has_service_tags(const uint8_t* frame, uint32_t captured_length) {
    return find_service_tag(frame, captured_length, ethertype_at) != 0 ? 1 : 0;
}

void link_rewrite_service_tags(uint8_t* frame, uint32_t captured_length) {
    for (uint32_t at = ethertype_at; (at = find_service_tag(frame, captured_length, at)) != 0;
         at += tag_size)
        store_native(frame + at, byte_swap(type_tag));
}
