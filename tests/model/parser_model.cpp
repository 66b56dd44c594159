#include "tests/model/parser_model.h"

namespace kestrel_model {

namespace {

enum mask_bit : uint32_t {
    mask_ip = 0x001,
    mask_ports = 0x002,
    mask_icmp = 0x004,
    mask_mac = 0x008,
    mask_l3 = 0x010,
    mask_l4 = 0x020,
    mask_interface = 0x040,
    mask_vlan = 0x080,
    mask_mpls = 0x100,
};

struct crc_tables {
    uint64_t entry[4][256];
};

crc_tables make_tables() {
    crc_tables tables{};
    for (unsigned table = 0; table < 4; ++table) {
        for (unsigned index = 0; index < 256; ++index) {
            uint64_t crc = index;
            for (unsigned bit = 0; bit < 8 * (table + 1); ++bit)
                crc = (crc & 1) ? (crc >> 1) ^ 0xC96C'5795'D787'0F42u : crc >> 1;
            tables.entry[table][index] = crc;
        }
    }
    return tables;
}

const crc_tables tables = make_tables();

// The frame followed by zeros without end.
class view {
  public:
    explicit view(const std::vector<uint8_t>& frame) : frame_(frame) {}

    uint32_t u8(uint64_t at) const { return at < frame_.size() ? frame_[at] : 0; }
    uint32_t be16(uint64_t at) const { return u8(at) << 8 | u8(at + 1); }
    uint32_t be32(uint64_t at) const { return be16(at) << 16 | be16(at + 2); }
    uint32_t wire_word(uint64_t at) const {
        return u8(at) | u8(at + 1) << 8 | u8(at + 2) << 16 | u8(at + 3) << 24;
    }
    uint64_t size() const { return frame_.size(); }

  private:
    const std::vector<uint8_t>& frame_;
};

class parse {
  public:
    parse(const std::vector<uint8_t>& frame, uint32_t mask, uint16_t input_interface)
        : frame_(frame), mask_(mask), input_interface_(input_interface) {}

    parsed_frame run() {
        addresses_of_the_link();
        const std::optional<uint64_t> layer3 = find_layer3();
        if (!layer3)
            return out_;
        const std::optional<uint64_t> end = layer_3(*layer3);
        if (!end)
            return out_;
        final_word();
        out_.header_length = static_cast<uint32_t>(*end);
        out_.key = static_cast<int64_t>(~h_ | uint64_t{1} << 63);
        return out_;
    }

  private:
    void addresses_of_the_link() {
        for (unsigned i = 0; i < 6; ++i) {
            out_.mac_destination[i] = static_cast<uint8_t>(frame_.u8(i));
            out_.mac_source[i] = static_cast<uint8_t>(frame_.u8(6 + i));
        }
        if (mask_ & mask_mac) {
            hash32(frame_.wire_word(0));
            hash32(frame_.wire_word(4));
            hash32(frame_.wire_word(8));
        }
    }

    // Where the IP header starts; nothing when the frame is no flow.
    std::optional<uint64_t> find_layer3() {
        uint64_t p = 12;
        for (;;) {
            const uint32_t type = frame_.be16(p);
            const uint64_t q = p + 2;
            if (type == 0x0800 || type == 0x86DD)
                return q;
            if (type == 0x8100 || type == 0x9100 || type == 0x9200) {
                const auto vid = static_cast<uint16_t>(frame_.be16(q) & 0x0FFF);
                if (mask_ & mask_vlan)
                    hash16(vid);
                out_.vlan_ids.push_back(vid);
                p = q + 2;
            } else if (type == 0x8847) {
                const std::optional<uint64_t> payload = walk_labels(q);
                if (!payload)
                    return {};
                const uint32_t c = frame_.u8(*payload);
                if ((c >= 0x45 && c <= 0x4F) || (c >= 0x60 && c <= 0x6F))
                    return payload;
                p = *payload + 12;
            } else {
                return {};
            }
        }
    }

    std::optional<uint64_t> walk_labels(uint64_t at) {
        for (;;) {
            if (at >= frame_.size()) {
                out_.label_stack_has_no_end = true;
                return {};
            }
            const uint32_t entry = frame_.be32(at);
            out_.mpls_entries.push_back(entry >> 8);
            if (mask_ & mask_mpls)
                hash32(entry >> 8);
            at += 4;
            if (entry & 0x100)
                return at;
        }
    }

    std::optional<uint64_t> layer_3(uint64_t header) {
        const uint32_t version = frame_.u8(header) >> 4;
        out_.l3protocol = static_cast<uint8_t>(version);
        if (version == 4)
            return ip_version_4(header);
        if (version == 6)
            return ip_version_6(header);
        return {};
    }

    uint64_t ip_version_4(uint64_t header) {
        out_.ipv4 = ipv4_view{frame_.be32(header + 12), frame_.be32(header + 16),
                              static_cast<uint8_t>(frame_.u8(header + 1))};
        if (mask_ & mask_ip) {
            hash32(frame_.wire_word(header + 12));
            hash32(frame_.wire_word(header + 16));
        }
        out_.l4protocol = static_cast<uint8_t>(frame_.u8(header + 9));
        out_.bytes = frame_.be16(header + 2);
        const uint64_t transport = header + 4 * (frame_.u8(header) & 0x0F);
        const uint32_t fragment = frame_.be16(header + 6);
        const bool more_fragments = (fragment & 0x2000) != 0;
        const bool has_offset = (fragment & 0x1FFF) != 0;
        if (more_fragments || has_offset) {
            out_.srcport = 0;
            out_.dstport = 0;
            out_.tcpflags = 0;
            return transport;
        }
        return layer_4(transport);
    }

    uint64_t ip_version_6(uint64_t header) {
        ipv6_view addresses;
        for (unsigned i = 0; i < 16; ++i) {
            addresses.source[15 - i] = static_cast<uint8_t>(frame_.u8(header + 8 + i));
            addresses.destination[15 - i] = static_cast<uint8_t>(frame_.u8(header + 24 + i));
        }
        out_.ipv6 = addresses;
        if (mask_ & mask_ip) {
            for (unsigned offset = 8; offset <= 36; offset += 4)
                hash32(frame_.wire_word(header + offset));
        }
        out_.l4protocol = static_cast<uint8_t>(frame_.u8(header + 6));
        out_.bytes = frame_.be16(header + 4) + 40;
        return layer_4(header + 40);
    }

    uint64_t layer_4(uint64_t t) {
        for (;;) {
            out_.srcport = static_cast<uint16_t>(frame_.be16(t));
            out_.dstport = static_cast<uint16_t>(frame_.be16(t + 2));
            const uint8_t protocol = *out_.l4protocol;
            if (protocol == 17) {
                hash_ports(t);
                return t + 8;
            }
            if (protocol == 6) {
                out_.tcpflags = static_cast<uint8_t>(frame_.u8(t + 13));
                hash_ports(t);
                return t + 4 * (frame_.u8(t + 12) >> 4);
            }
            if (protocol == 132) {
                hash_ports(t);
                return t + 12;
            }
            if (protocol == 1 || protocol == 58) {
                out_.icmptypecode = static_cast<uint16_t>(frame_.u8(t) * 256 + frame_.u8(t + 1));
                if (mask_ & mask_icmp)
                    hash16(*out_.icmptypecode);
                return t + 4;
            }
            const bool extension = protocol == 0 || protocol == 60 || protocol == 43 ||
                                   protocol == 44 || protocol == 51;
            if (*out_.l3protocol != 6 || !extension)
                return t;
            out_.l4protocol = static_cast<uint8_t>(frame_.u8(t));
            const uint32_t n = frame_.u8(t + 1);
            t += 8 * n;
            if (n == 0 || t >= frame_.size())
                return t;
        }
    }

    void final_word() {
        uint32_t w = 0;
        if (mask_ & mask_interface)
            w = uint32_t{input_interface_} << 16;
        if (mask_ & mask_l3)
            w = (w + *out_.l3protocol) << 8;
        if (mask_ & mask_l4)
            w = w + *out_.l4protocol;
        hash32(w);
    }

    void hash_ports(uint64_t t) {
        if (mask_ & mask_ports)
            hash32(frame_.wire_word(t));
    }

    void hash32(uint32_t word) {
        const auto x = static_cast<uint32_t>(word ^ (h_ & 0xFFFF'FFFF));
        h_ = (h_ << 32) ^ tables.entry[3][x & 0xFF] ^ tables.entry[2][(x >> 8) & 0xFF] ^
             tables.entry[1][(x >> 16) & 0xFF] ^ tables.entry[0][x >> 24];
    }

    void hash16(uint32_t value) {
        h_ = (h_ << 8) ^ tables.entry[0][(value & 0xFF) ^ (h_ >> 56)];
        h_ = (h_ << 8) ^ tables.entry[0][(value >> 8) ^ (h_ >> 56)];
    }

    view frame_;
    uint32_t mask_;
    uint16_t input_interface_;
    uint64_t h_ = 0xFFFF'FFFF'FFFF'FFFF;
    parsed_frame out_;
};

}  // namespace

parsed_frame parse_frame(const std::vector<uint8_t>& frame, uint32_t mask,
                         uint16_t input_interface) {
    return parse(frame, mask, input_interface).run();
}

uint64_t crc_table_entry(unsigned table, unsigned index) {
    return tables.entry[table][index];
}

}  // namespace kestrel_model
