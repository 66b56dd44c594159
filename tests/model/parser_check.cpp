#include "tests/model/parser_check.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "flow/parser.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/record.h"
#include "tests/model/parser_model.h"

namespace kestrel_model {

namespace {

constexpr size_t record_room = 88 + 10 + 44 + 12;
constexpr size_t guard = 32;  // bytes after the record that nobody may touch

// What the driver says of a frame on the reader's road.
constexpr uint64_t given_time = 1'700'000'000'123'456'789;
constexpr uint16_t given_input = 0x8123;
constexpr uint16_t given_output = 0x0456;
constexpr uint32_t given_sampling = 0x000A'0BCD;

struct block_offsets {
    uint64_t vlan = 0;
    uint64_t mpls = 0;
    uint64_t mac = 0;
    uint64_t record_size = 88;
};

block_offsets place_blocks(unsigned blocks) {
    block_offsets at;
    const auto place = [&](unsigned bit, uint64_t& offset, uint64_t size) {
        if (blocks & bit) {
            offset = at.record_size;
            at.record_size += size;
        }
    };
    if (blocks & block_reversed) {
        place(block_mac, at.mac, 12);
        place(block_mpls, at.mpls, 44);
        place(block_vlan, at.vlan, 10);
    } else {
        place(block_vlan, at.vlan, 10);
        place(block_mpls, at.mpls, 44);
        place(block_mac, at.mac, 12);
    }
    return at;
}

struct record_buffer {
    alignas(8) uint8_t bytes[record_room + guard];

    flow_record& record() { return *reinterpret_cast<flow_record*>(bytes); }
    template <typename T>
    T at(uint64_t offset) const {
        T value;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    }
};

// Collects differences.
class comparison {
  public:
    template <typename T, typename U>
    void equal(const char* what, T expected, U actual) {
        if (static_cast<uint64_t>(expected) == static_cast<uint64_t>(actual))
            return;
        char line[160];
        std::snprintf(line, sizeof line, "%s: expected 0x%llX, got 0x%llX; ", what,
                      static_cast<unsigned long long>(expected),
                      static_cast<unsigned long long>(actual));
        text_ += line;
    }
    void same_bytes(const char* what, const void* expected, const void* actual, size_t size) {
        if (std::memcmp(expected, actual, size) != 0)
            text_ += std::string(what) + ": bytes differ; ";
    }
    void filled(const char* what, uint8_t filling, const uint8_t* actual, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            if (actual[i] != filling) {
                text_ += std::string(what) + ": was changed; ";
                return;
            }
        }
    }
    const std::string& text() const { return text_; }

  private:
    std::string text_;
};

struct one_frame_driver {
    const uint8_t* data;
    uint32_t captured;
};

const uint8_t* give_frame(void* context, packet_header* header) {
    const auto* driver = static_cast<one_frame_driver*>(context);
    *header = {given_time, driver->captured + 100, driver->captured, given_input, given_output};
    return driver->data;
}

uint16_t filled16(uint8_t filling) {
    return static_cast<uint16_t>(filling << 8 | filling);
}

void compare_blocks(comparison& c, const parsed_frame& model, const record_buffer& actual,
                    const block_offsets& at) {
    if (at.vlan) {
        const size_t count = model.vlan_ids.size() < 4 ? model.vlan_ids.size() : 4;
        c.equal("vlan count", count, actual.at<uint16_t>(at.vlan + 8));
        for (size_t i = 0; i < count; ++i)
            c.equal("vlan id", model.vlan_ids[i], actual.at<uint16_t>(at.vlan + 2 * i));
    }
    // Where the labels have no end, how many of them were kept says nothing: there is no flow.
    if (at.mpls && !model.label_stack_has_no_end) {
        const size_t count = model.mpls_entries.size() < 10 ? model.mpls_entries.size() : 10;
        c.equal("mpls count", count, actual.at<uint16_t>(at.mpls + 40));
        for (size_t i = 0; i < count; ++i)
            c.equal("mpls entry", model.mpls_entries[i], actual.at<uint32_t>(at.mpls + 4 * i));
    }
    if (at.mac) {
        c.same_bytes("mac source", model.mac_source.data(), actual.bytes + at.mac, 6);
        c.same_bytes("mac destination", model.mac_destination.data(), actual.bytes + at.mac + 6, 6);
    }
}

void compare_addresses(comparison& c, const parsed_frame& model, const record_buffer& actual,
                       uint8_t filling) {
    if (model.ipv4) {
        c.equal("srcipv4", model.ipv4->source, actual.at<uint32_t>(32));
        c.equal("dstipv4", model.ipv4->destination, actual.at<uint32_t>(36));
        c.equal("tos", model.ipv4->tos, actual.at<uint8_t>(40));
    } else if (model.ipv6) {
        c.same_bytes("srcipv6", model.ipv6->source.data(), actual.bytes + 32, 16);
        c.same_bytes("dstipv6", model.ipv6->destination.data(), actual.bytes + 48, 16);
    } else {
        c.filled("addresses", filling, actual.bytes + 32, 32);
    }
}

void compare_record(comparison& c, const parsed_frame& model, const record_buffer& actual,
                    const check_settings& settings, const block_offsets& at) {
    const uint64_t filled64 = 0x0101'0101'0101'0101u * settings.filling;
    const bool reader = settings.through_reader;
    c.equal("start", reader ? given_time : filled64, actual.at<uint64_t>(0));
    c.equal("end", reader ? given_time : filled64, actual.at<uint64_t>(8));
    c.equal("packets", 1, actual.at<uint32_t>(16));
    c.equal("bytes", model.bytes.value_or(0), actual.at<uint32_t>(20));
    c.equal("inputsnmp", reader ? given_input : 0, actual.at<uint16_t>(24));
    c.equal("outputsnmp", reader ? given_output : 0, actual.at<uint16_t>(26));
    compare_addresses(c, model, actual, settings.filling);
    c.equal("l3protocol", model.l3protocol.value_or(0), actual.at<uint8_t>(64));
    c.equal("l4protocol", model.l4protocol.value_or(0), actual.at<uint8_t>(72));
    c.equal("srcport", model.srcport.value_or(filled16(settings.filling)), actual.at<uint16_t>(74));
    c.equal("dstport", model.dstport.value_or(filled16(settings.filling)), actual.at<uint16_t>(76));
    c.equal("tcpflags", model.tcpflags.value_or(0), actual.at<uint8_t>(78));
    c.equal("icmptypecode", model.icmptypecode.value_or(filled16(settings.filling)),
            actual.at<uint16_t>(80));
    c.equal("export_flag", 0, actual.at<uint16_t>(82));
    c.equal("sampling", reader ? given_sampling & 0xFFFF : 0, actual.at<uint16_t>(84));
    compare_blocks(c, model, actual, at);
    c.filled("what follows the record", settings.filling, actual.bytes + at.record_size,
             sizeof actual.bytes - at.record_size);
}

void compare_position(comparison& c, const parsed_frame& model, const uint8_t* data,
                      uint32_t captured) {
    uint32_t captured_seen = 0;
    uint32_t header_seen = 0;
    const uint8_t* seen = get_packet_data(&captured_seen, &header_seen);
    if (model.header_length > captured) {
        c.equal("packet data of a frame that its headers leave", 0u,
                reinterpret_cast<uintptr_t>(seen));
        return;
    }
    c.equal("packet data", reinterpret_cast<uintptr_t>(data), reinterpret_cast<uintptr_t>(seen));
    c.equal("captured length", captured, captured_seen);
    c.equal("header length", model.header_length, header_seen);
}

// What whoever hands a record to the reader has set in it.
void prepare(record_buffer& buffer, const block_offsets& at) {
    flow_record& record = buffer.record();
    record.packets = 1;
    record.bytes = 0;
    record.tcpflags = record.l3protocol = record.l4protocol = 0;
    record.export_flag = 0;
    if (at.vlan)
        std::memset(buffer.bytes + at.vlan + 8, 0, 2);
    if (at.mpls)
        std::memset(buffer.bytes + at.mpls + 40, 0, 2);
}

}  // namespace

std::string compare_parsers(const std::vector<uint8_t>& frame, const check_settings& settings) {
    const block_offsets at = place_blocks(settings.blocks);
    kestrel_vlan_offset = at.vlan;
    kestrel_mpls_offset = at.mpls;
    kestrel_mac_offset = at.mac;
    kestrel::parser_set_flow_mask(settings.mask);

    const std::unique_ptr<uint8_t[]> exact(new uint8_t[frame.size()]);
    std::copy(frame.begin(), frame.end(), exact.get());
    const auto captured = static_cast<uint32_t>(frame.size());

    record_buffer actual;
    std::memset(actual.bytes, settings.filling, sizeof actual.bytes);
    flow_key key;
    if (settings.through_reader) {
        prepare(actual, at);
        one_frame_driver driver{exact.get(), captured};
        packet_reader reader{given_sampling, &driver, give_frame};
        key = packet_to_flow_reader(&reader, &actual.record());
    } else {
        key = record_process_packet(exact.get(), captured, &actual.record());
    }

    const parsed_frame model =
        parse_frame(frame, settings.mask, settings.through_reader ? given_input : uint16_t{0});
    comparison c;
    c.equal("key", model.key, key);
    compare_record(c, model, actual, settings, at);
    compare_position(c, model, exact.get(), captured);
    kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
    return c.text();
}

std::string hex_of(const std::vector<uint8_t>& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02X ", byte);
        text += digits;
    }
    return text;
}

}  // namespace kestrel_model
