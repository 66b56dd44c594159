#include "tests/support/frame_builder.h"

namespace kestrel_test {

frame_builder& frame_builder::u8(unsigned value) {
    frame_.push_back(static_cast<uint8_t>(value));
    return *this;
}

frame_builder& frame_builder::u16(unsigned value) {
    return u8(value >> 8).u8(value);
}

frame_builder& frame_builder::u32(uint64_t value) {
    return u16(static_cast<unsigned>(value >> 16)).u16(static_cast<unsigned>(value & 0xFFFF));
}

frame_builder& frame_builder::bytes(std::initializer_list<unsigned> values) {
    for (const unsigned value : values)
        u8(value);
    return *this;
}

frame_builder& frame_builder::zeros(std::size_t count) {
    frame_.insert(frame_.end(), count, uint8_t{0});
    return *this;
}

frame_builder& frame_builder::macs() {
    return bytes({2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1});
}

frame_builder& frame_builder::vlan(unsigned vid, unsigned type) {
    return u16(type).u16(vid);
}

frame_builder& frame_builder::mpls_entry(unsigned label, bool bottom) {
    return u32(uint64_t{label} << 12 | (bottom ? 0x100u : 0u) | 64u);
}

frame_builder& frame_builder::ipv4(unsigned protocol, unsigned total_length, unsigned fragment,
                                   unsigned tos) {
    u8(0x45).u8(tos).u16(total_length).u16(0).u16(fragment).u8(64).u8(protocol).u16(0);
    return bytes({192, 0, 2, 1, 198, 51, 100, 2});
}

frame_builder& frame_builder::ipv6(unsigned next_header, unsigned payload_length) {
    u32(0x6000'0000).u16(payload_length).u8(next_header).u8(64);
    bytes({0x20, 0x01, 0x0D, 0xB8}).zeros(11).u8(1);
    return bytes({0x20, 0x01, 0x0D, 0xB8}).zeros(11).u8(2);
}

frame_builder& frame_builder::udp(unsigned source, unsigned destination) {
    return u16(source).u16(destination).u16(8).u16(0);
}

frame_builder& frame_builder::tcp(unsigned source, unsigned destination, unsigned flags) {
    u16(source).u16(destination).u32(1).u32(0).u8(0x50).u8(flags);
    return u16(1024).u16(0).u16(0);
}

}  // namespace kestrel_test
