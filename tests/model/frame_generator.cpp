#include "tests/model/frame_generator.h"

#include <iterator>

namespace kestrel_model {

using kestrel_test::frame_builder;

uint32_t frame_generator::below(uint32_t limit) {
    return static_cast<uint32_t>(random_() % limit);
}

std::vector<uint8_t> frame_generator::well_formed() {
    frame_builder out;
    const bool version6 = one_in(2);
    link_layer(out, version6 ? 0x86DD : 0x0800);
    if (version6)
        ip6(out);
    else
        ip4(out);
    random_run(out, below(64));
    return out.done();
}

std::vector<uint8_t> frame_generator::mutated() {
    std::vector<uint8_t> frame = well_formed();
    const uint32_t changes = 1 + below(4);
    for (uint32_t i = 0; i < changes; ++i) {
        // Mostly among the headers, where it matters.
        const uint32_t reach = one_in(4) ? static_cast<uint32_t>(frame.size()) : 60;
        const uint32_t at = below(reach) % static_cast<uint32_t>(frame.size());
        const auto value = static_cast<uint8_t>(below(256));
        switch (below(6)) {
            case 0:
                frame.insert(frame.begin() + at, value);
                break;
            case 1:
                if (frame.size() > 1)
                    frame.erase(frame.begin() + at);
                break;
            case 2:
                frame[at] = 0;
                break;
            case 3:
                frame[at] ^= static_cast<uint8_t>(1u << below(8));
                break;
            default:
                frame[at] = value;
        }
    }
    return frame;
}

std::vector<uint8_t> frame_generator::random_bytes() {
    constexpr unsigned types[] = {0x0800, 0x86DD, 0x8100, 0x9100, 0x9200, 0x8847, 0x0806, 0x88A8};
    frame_builder out;
    random_run(out, below(150));
    std::vector<uint8_t> frame = out.done();
    if (frame.size() >= 14 && !one_in(4)) {
        const unsigned type = types[below(std::size(types))];
        frame[12] = static_cast<uint8_t>(type >> 8);
        frame[13] = static_cast<uint8_t>(type);
    }
    return frame;
}

void frame_generator::link_layer(frame_builder& out, unsigned network_type) {
    random_run(out, 12);
    if (one_in(3)) {
        constexpr unsigned types[] = {0x8100, 0x9100, 0x9200};
        for (uint32_t tags = 1 + below(6); tags > 0; --tags)
            out.u16(types[below(3)]).u16(below(0x10000));
    }
    if (one_in(3)) {
        out.u16(0x8847);
        const bool pseudowire = one_in(4);
        labels(out, pseudowire);
        if (!pseudowire)
            return;
    }
    out.u16(one_in(40) ? 0x0806 : network_type);
}

void frame_generator::labels(frame_builder& out, bool pseudowire) {
    const uint32_t depth = one_in(4) ? 1 + below(14) : 1 + below(3);
    for (uint32_t i = 1; i <= depth; ++i) {
        const uint64_t entry = random_() & 0xFFFF'FEFFu;
        out.u32(entry | (i == depth ? 0x100u : 0u));
    }
    if (pseudowire) {
        out.u8(0);  // the first byte of the inner destination address: no IP version
        random_run(out, 11);
        if (one_in(4))
            out.u16(0x8100).u16(below(0x10000));
    }
}

void frame_generator::random_run(frame_builder& out, uint32_t length) {
    for (uint32_t i = 0; i < length; ++i)
        out.u8(below(256));
}

void frame_generator::ip4(frame_builder& out) {
    const unsigned protocol = any_protocol();
    const unsigned words = one_in(4) ? 5 + below(11) : 5;
    constexpr unsigned fragments[] = {0x0000, 0x4000, 0x2000, 0x2001, 0x0010, 0x1FFF, 0x8000};
    out.u8(0x40 | words).u8(below(256)).u16(below(0x10000)).u16(below(0x10000));
    out.u16(fragments[one_in(3) ? below(std::size(fragments)) : 0]);
    out.u8(below(256)).u8(protocol).u16(below(0x10000));
    random_run(out, 8 + 4 * (words - 5));
    transport(out, protocol);
}

void frame_generator::ip6(frame_builder& out) {
    constexpr unsigned extensions[] = {0, 60, 43, 44, 51};
    const uint32_t count = one_in(3) ? 1 + below(4) : 0;
    const unsigned protocol = any_protocol();
    unsigned next = count ? extensions[below(std::size(extensions))] : protocol;
    out.u32(0x6000'0000u | below(0x1000'0000)).u16(below(0x10000)).u8(next).u8(below(256));
    random_run(out, 32);
    for (uint32_t i = 1; i <= count; ++i) {
        next = i == count ? protocol : extensions[below(std::size(extensions))];
        // The walk advances by 8 times this byte.
        const uint32_t units = one_in(5) ? 0 : 1 + below(3);
        out.u8(next).u8(units);
        random_run(out, units ? 8 * units - 2 : 6);
    }
    transport(out, protocol);
}

void frame_generator::transport(frame_builder& out, unsigned protocol) {
    switch (protocol) {
        case 6:
            random_run(out, 12);
            out.u8((one_in(4) ? below(16) : 5) << 4).u8(below(256));
            random_run(out, 6);
            break;
        case 132:
            random_run(out, 12);
            break;
        default:
            random_run(out, 8);
    }
}

unsigned frame_generator::any_protocol() {
    constexpr unsigned known[] = {6, 17, 132, 1, 58};
    return one_in(6) ? below(256) : known[below(std::size(known))];
}

}  // namespace kestrel_model
