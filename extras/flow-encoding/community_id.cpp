// The Community ID; see community_id.h. What is hashed: seed, the smaller end's address, the
// other's, the protocol, a zero, and the ports in the same order, all in network order.
#include "community_id.h"

#include <gcrypt.h>

#include <array>
#include <cstring>

namespace flow_encoding {
namespace {

enum protocol : uint8_t { icmp = 1, tcp = 6, udp = 17, icmp6 = 58, sctp = 132 };

struct message_pair {
    uint8_t one;
    uint8_t other;
};
constexpr message_pair icmp_pairs[] = {
    {8, 0},    // echo
    {13, 14},  // timestamp
    {15, 16},  // information
    {10, 9},   // router solicitation, advertisement
    {17, 18},  // address mask
};
constexpr message_pair icmp6_pairs[] = {
    {128, 129},  // echo
    {133, 134},  // router solicitation, advertisement
    {135, 136},  // neighbour solicitation, advertisement
    {130, 131},  // multicast listener query, report
    {139, 140},  // node information
    {144, 145},  // home agent discovery
};

// What stands in the place of ports.
struct port_words {
    uint16_t source = 0;
    uint16_t destination = 0;
    bool are_hashed = false;
    bool is_one_way = false;  // the two directions are different conversations
};

template <size_t count>
port_words ports_of_message(const message_pair (&pairs)[count], uint16_t type_and_code) {
    const auto type = static_cast<uint8_t>(type_and_code >> 8);
    for (const message_pair& pair : pairs) {
        if (pair.one == type)
            return {type, pair.other, true, false};
        if (pair.other == type)
            return {type, pair.one, true, false};
    }
    return {type, static_cast<uint16_t>(type_and_code & 0xFF), true, true};
}

port_words ports_of(const flow_record& record) {
    switch (record.l4protocol) {
        case icmp:
            return ports_of_message(icmp_pairs, record.icmptypecode);
        case icmp6:
            return ports_of_message(icmp6_pairs, record.icmptypecode);
        case tcp:
        case udp:
        case sctp:
            return {record.srcport, record.dstport, true, false};
        default:
            return {};
    }
}

struct flow_ends {
    uint8_t source[16];
    uint8_t destination[16];
    size_t length;
};

flow_ends ends_of(const flow_record& record) {
    flow_ends ends{};
    if (record.l3protocol == 4) {
        const uint32_t source = __builtin_bswap32(record.ipv4.srcipv4);
        const uint32_t destination = __builtin_bswap32(record.ipv4.dstipv4);
        ends.length = sizeof source;
        std::memcpy(ends.source, &source, sizeof source);
        std::memcpy(ends.destination, &destination, sizeof destination);
        return ends;
    }
    ends.length = sizeof ends.source;
    for (size_t n = 0; n < ends.length; ++n) {
        ends.source[n] = record.ipv6.srcipv6[ends.length - 1 - n];
        ends.destination[n] = record.ipv6.dstipv6[ends.length - 1 - n];
    }
    return ends;
}

bool is_in_order(const flow_ends& ends, const port_words& ports) {
    if (ports.is_one_way)
        return true;
    const int order = std::memcmp(ends.source, ends.destination, ends.length);
    return order < 0 || (order == 0 && ports.source < ports.destination);
}

void add_bytes(uint8_t*& to, const uint8_t* bytes, size_t length) {
    std::memcpy(to, bytes, length);
    to += length;
}

void add_word(uint8_t*& to, uint16_t word) {
    *to++ = static_cast<uint8_t>(word >> 8);
    *to++ = static_cast<uint8_t>(word);
}

using sha1_digest = std::array<uint8_t, 20>;

sha1_digest sha1_of(const uint8_t* message, size_t length) {
    // The library wants to be asked for its version first.
    [[maybe_unused]] static const char* const version = gcry_check_version(nullptr);
    sha1_digest digest;
    gcry_md_hash_buffer(GCRY_MD_SHA1, digest.data(), message, length);
    return digest;
}

sha1_digest digest_of(const flow_record& record, uint16_t seed) {
    const flow_ends ends = ends_of(record);
    const port_words ports = ports_of(record);
    const bool is_straight = is_in_order(ends, ports);
    uint8_t message[2 + 16 + 16 + 2 + 4];
    uint8_t* to = message;
    add_word(to, seed);
    add_bytes(to, is_straight ? ends.source : ends.destination, ends.length);
    add_bytes(to, is_straight ? ends.destination : ends.source, ends.length);
    *to++ = record.l4protocol;
    *to++ = 0;
    if (ports.are_hashed) {
        add_word(to, is_straight ? ports.source : ports.destination);
        add_word(to, is_straight ? ports.destination : ports.source);
    }
    return sha1_of(message, static_cast<size_t>(to - message));
}

constexpr char base64_digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

char* put_base64(char* to, uint32_t bits, int digits) {
    for (int n = 0; n < digits; ++n)
        *to++ = base64_digits[bits >> (18 - 6 * n) & 0x3F];
    return to;
}

}  // namespace

void put_community_id(char* to, const flow_record& record, uint16_t seed) {
    const sha1_digest digest = digest_of(record, seed);
    *to++ = '1';
    *to++ = ':';
    size_t n = 0;
    for (; n + 3 <= digest.size(); n += 3)
        to = put_base64(
            to, static_cast<uint32_t>(digest[n] << 16 | digest[n + 1] << 8 | digest[n + 2]), 4);
    // Twenty bytes leave two.
    to = put_base64(to, static_cast<uint32_t>(digest[n] << 16 | digest[n + 1] << 8), 3);
    *to = '=';
}

}  // namespace flow_encoding
