// Transport protocols by number, and what the program asks of them in more than one place.
// Constant; any thread.
#pragma once

#include <cstdint>

namespace kestrel {

// As in the protocol field of IPv4 and the next header field of IPv6 (IANA, Protocol Numbers).
enum ip_protocol : uint8_t {
    protocol_icmp = 1,
    protocol_tcp = 6,
    protocol_udp = 17,
    protocol_icmpv6 = 58,
    protocol_sctp = 132,
};

// Whether the first two words of the transport header are ports.
constexpr bool has_ports(unsigned protocol) {
    return protocol == protocol_tcp || protocol == protocol_udp || protocol == protocol_sctp;
}

// Whether the first word of the transport header is a type and a code.
constexpr bool has_type_and_code(unsigned protocol) {
    return protocol == protocol_icmp || protocol == protocol_icmpv6;
}

}  // namespace kestrel
