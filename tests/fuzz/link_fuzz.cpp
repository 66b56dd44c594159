// Link types and tags of providers on any frame, held against a plain model. Input: which link
// type, room in the buffer after the Ethernet header, bytes on the wire that were not captured,
// frame.
#include "kestrelexp/link.h"

#include <pcap/dlt.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "tests/fuzz/fuzz_target.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr int link_types[] = {DLT_NULL, DLT_LOOP, DLT_PPP,       DLT_PPP_SERIAL, DLT_RAW,
                              DLT_IPV4, DLT_IPV6, DLT_LINUX_SLL, DLT_LINUX_SLL2};

// Bytes that no one else's memory touches, so that a sanitizer sees a step too far.
struct exact_copy {
    explicit exact_copy(const bytes& from) : data(new uint8_t[from.size()]) {
        std::copy(from.begin(), from.end(), data.get());
    }
    std::unique_ptr<uint8_t[]> data;
};

uint16_t word_at(const bytes& frame, size_t at) {
    return static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]);
}

struct parted {
    bool is_whole = false;  // the header is
    size_t header = 0;      // bytes
    uint16_t type = 0;
};

parted part_ppp(const bytes& frame) {
    size_t at = frame.size() >= 2 && word_at(frame, 0) == 0xFF03 ? 2 : 0;
    uint16_t protocol = 0;
    if (at < frame.size() && (frame[at] & 1) != 0)
        protocol = frame[at++];
    else if (at + 2 <= frame.size())
        protocol = word_at(frame, at), at += 2;
    else
        return {false, at + 2, 0};
    const uint16_t type = protocol == 0x21    ? 0x0800
                          : protocol == 0x57  ? 0x86DD
                          : protocol == 0x281 ? 0x8847
                                              : 0;
    return {true, at, type};
}

parted part_family(const bytes& frame) {
    if (frame.size() < 4)
        return {false, 4, 0};
    uint32_t big = 0, little = 0;
    for (size_t n = 0; n < 4; ++n) {
        big = big << 8 | frame[n];
        little = little << 8 | frame[3 - n];
    }
    const auto is = [&](uint32_t number) { return big == number || little == number; };
    const bool is_six = is(10) || is(24) || is(28) || is(30);
    return {true, 4, static_cast<uint16_t>(is(2) ? 0x0800 : is_six ? 0x86DD : 0)};
}

parted part(int link_type, const bytes& frame) {
    switch (link_type) {
        case DLT_NULL:
        case DLT_LOOP:
            return part_family(frame);
        case DLT_PPP:
        case DLT_PPP_SERIAL:
            return part_ppp(frame);
        case DLT_IPV4:
            return {true, 0, 0x0800};
        case DLT_IPV6:
            return {true, 0, 0x86DD};
        case DLT_RAW: {
            const int version = frame.empty() ? 0 : frame[0] >> 4;
            return {true, 0,
                    static_cast<uint16_t>(version == 4   ? 0x0800
                                          : version == 6 ? 0x86DD
                                                         : 0)};
        }
        default: {
            const size_t header = link_type == DLT_LINUX_SLL ? 16 : 20;
            if (frame.size() < header)
                return {false, header, 0};
            return {true, header, word_at(frame, link_type == DLT_LINUX_SLL ? 14 : 0)};
        }
    }
}

bytes expected_frame(int link_type, const bytes& frame, const parted& found, size_t room) {
    bytes expected(LINK_ETHERNET_HEADER, 0);
    const size_t length_at = link_type == DLT_LINUX_SLL ? 5 : 11;
    if ((link_type == DLT_LINUX_SLL || link_type == DLT_LINUX_SLL2) && frame[length_at] == 6)
        std::copy_n(frame.begin() + static_cast<ptrdiff_t>(length_at) + 1, 6, expected.begin() + 6);
    expected[12] = static_cast<uint8_t>(found.type >> 8);
    expected[13] = static_cast<uint8_t>(found.type & 0xFF);
    const size_t taken = std::min(frame.size() - found.header, room);
    expected.insert(expected.end(), frame.begin() + static_cast<ptrdiff_t>(found.header),
                    frame.begin() + static_cast<ptrdiff_t>(found.header + taken));
    return expected;
}

void check_translation(int link_type, const bytes& frame, size_t room, uint32_t not_captured) {
    const exact_copy source(frame);
    const auto buffer = std::make_unique<uint8_t[]>(LINK_ETHERNET_HEADER + room);
    packet_header header{};
    header.captured_length = static_cast<uint32_t>(frame.size());
    header.wire_length = header.captured_length + not_captured;
    const uint8_t* const result =
        link_to_ethernet(link_format_find(link_type), source.data.get(), &header, buffer.get(),
                         static_cast<uint32_t>(LINK_ETHERNET_HEADER + room));
    const parted found = part(link_type, frame);
    if (!found.is_whole) {
        if (header.captured_length != 0)
            kestrel_fuzz::fail("a frame that ends within its header is not empty");
        return;
    }
    const size_t wire = frame.size() + not_captured;
    if (header.wire_length != LINK_ETHERNET_HEADER + wire - found.header)
        kestrel_fuzz::fail("another length on the wire");
    const bytes expected = expected_frame(link_type, frame, found, room);
    if (header.captured_length != expected.size() ||
        std::memcmp(result, expected.data(), expected.size()) != 0)
        kestrel_fuzz::fail("another frame");
}

void check_tags(const bytes& frame) {
    bytes expected = frame;
    for (size_t at = 12; at + 2 <= frame.size(); at += 4) {
        const uint16_t type = word_at(frame, at);
        if (type == 0x88A8) {
            expected[at] = 0x81;
            expected[at + 1] = 0;
        } else if (type != 0x8100 && type != 0x9100 && type != 0x9200) {
            break;
        }
    }
    const exact_copy changed(frame);
    const auto length = static_cast<uint32_t>(frame.size());
    if ((link_has_service_tags(changed.data.get(), length) != 0) != (expected != frame))
        kestrel_fuzz::fail("another word on tags of providers");
    link_rewrite_service_tags(changed.data.get(), length);
    if (!std::equal(expected.begin(), expected.end(), changed.data.get()))
        kestrel_fuzz::fail("other tags");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t choices = 3;
    if (size < choices)
        return 0;
    const bytes frame(data + choices, data + size);
    check_translation(link_types[data[0] % std::size(link_types)], frame, data[1], data[2]);
    check_tags(frame);
    return 0;
}
