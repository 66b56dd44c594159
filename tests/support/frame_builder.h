// Builds Ethernet frames byte by byte for tests: appends headers one after the other, nothing is
// computed behind the caller's back. Multi-byte values are written in network order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace kestrel_test {

using frame_bytes = std::vector<uint8_t>;

class frame_builder {
  public:
    frame_builder& u8(unsigned value);
    frame_builder& u16(unsigned value);
    frame_builder& u32(uint64_t value);
    frame_builder& bytes(std::initializer_list<unsigned> values);
    frame_builder& zeros(std::size_t count);

    // 02:00:00:00:00:02 (destination), 02:00:00:00:00:01 (source); the type field follows.
    frame_builder& macs();
    // A tag: its type, then priority 0 and the identifier.
    frame_builder& vlan(unsigned vid, unsigned type = 0x8100);
    // One label stack entry, traffic class 0, TTL 64.
    frame_builder& mpls_entry(unsigned label, bool bottom);
    // 20 bytes without options, 192.0.2.1 to 198.51.100.2, TTL 64, no checksum.
    frame_builder& ipv4(unsigned protocol, unsigned total_length, unsigned fragment = 0,
                        unsigned tos = 0);
    // 40 bytes, 2001:db8::1 to 2001:db8::2, hop limit 64.
    frame_builder& ipv6(unsigned next_header, unsigned payload_length);
    frame_builder& udp(unsigned source, unsigned destination);                  // 8 bytes
    frame_builder& tcp(unsigned source, unsigned destination, unsigned flags);  // 20 bytes

    const frame_bytes& done() const { return frame_; }

  private:
    frame_bytes frame_;
};

}  // namespace kestrel_test
