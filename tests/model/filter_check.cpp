#include "tests/model/filter_check.h"

#include <algorithm>
#include <cstring>

#include "kestrelexp/builtin.h"
#include "kestrelexp/record.h"

namespace kestrel_model {

namespace {

// ---- Tables ----

bool same(const uint32_t* actual, const words& expected) {
    return std::equal(expected.begin(), expected.end(), actual);
}

bool same(const fast4_entry& a, const model_fast& e) {
    return a.src_low == e.source.low[0] && a.src_span == e.source.high[0] &&
           a.dst_low == e.destination.low[0] && a.dst_span == e.destination.high[0] &&
           a.negate == uint16_t{e.negate};
}

bool same(const fast6_entry& a, const model_fast& e) {
    return same(a.src_low, e.source.low) && same(a.src_span, e.source.high) &&
           same(a.dst_low, e.destination.low) && same(a.dst_span, e.destination.high) &&
           a.negate == uint32_t{e.negate};
}

bool same(const slow_rule& a, const model_slow& e) {
    const auto range = [](uint32_t low, uint32_t span, const model_range& r) {
        return low == r.low && span == r.high;
    };
    return a.mask == e.mask && same(a.src_low, e.source.low) && same(a.src_span, e.source.high) &&
           same(a.dst_low, e.destination.low) && same(a.dst_span, e.destination.high) &&
           a.family == e.family && a.proto == e.proto &&
           range(a.sport_low, a.sport_span, e.source_port) &&
           range(a.dport_low, a.dport_span, e.destination_port) &&
           range(a.phy_low, a.phy_span, e.interface) &&
           range(a.packets_low, a.packets_span, e.packets) &&
           range(a.bytes_low, a.bytes_span, e.bytes) && range(a.vlan_low, a.vlan_span, e.vlan) &&
           a.negate == uint32_t{e.negate} && a.text == e.text;
}

template <typename Row, typename Model>
std::string compare_rows(const char* name, const Row* rows, uint64_t count,
                         const std::vector<Model>& expected) {
    if (count != expected.size())
        return std::string(name) + ": " + std::to_string(count) + " rows instead of " +
               std::to_string(expected.size());
    for (uint64_t i = 0; i < count; ++i) {
        if (!same(rows[i], expected[i]))
            return std::string(name) + ": row " + std::to_string(i) + " differs";
    }
    return "";
}

// ---- Flows ----

constexpr size_t block_offset = FLOW_RECORD_BASE_SIZE;

union any_record {
    flow_record fields;
    uint8_t bytes[block_offset + sizeof(vlan_block)];
};

void fill(any_record& record, const model_flow& flow) {
    // Bytes that mean nothing to this flow are no zeros.
    std::memset(record.bytes, 0xA5, sizeof record.bytes);
    flow_record& r = record.fields;
    r.l3protocol = static_cast<uint8_t>(flow.version);
    r.l4protocol = flow.protocol;
    r.srcport = flow.source_port;
    r.dstport = flow.destination_port;
    r.inputsnmp = flow.interface;
    r.packets = flow.packets;
    r.bytes = flow.bytes;
    if (flow.version == 4) {
        r.ipv4.srcipv4 = flow.source[0];
        r.ipv4.dstipv4 = flow.destination[0];
    } else {
        for (unsigned i = 0; i < 16; ++i) {
            r.ipv6.srcipv6[i] = static_cast<uint8_t>(flow.source[i / 4] >> 8 * (i % 4));
            r.ipv6.dstipv6[i] = static_cast<uint8_t>(flow.destination[i / 4] >> 8 * (i % 4));
        }
    }
    if (flow.vlans) {
        vlan_block block = {{0xA5A5, 0xA5A5, 0xA5A5, 0xA5A5}, 0};
        for (const uint16_t id : *flow.vlans)
            block.id[block.count++] = id;
        std::memcpy(record.bytes + block_offset, &block, sizeof block);
    }
}

}  // namespace

std::string compare_tables(const filter_rules& actual, const filter_model& expected) {
    std::string difference =
        compare_rows("fast4", actual.fast4, actual.fast4_count, expected.fast4());
    if (difference.empty())
        difference = compare_rows("fast6", actual.fast6, actual.fast6_count, expected.fast6());
    if (difference.empty())
        difference = compare_rows("slow", actual.slow, actual.slow_count, expected.slow());
    return difference;
}

uint32_t judge_with_program(const filter_rules& rules, const model_flow& flow) {
    any_record record;
    fill(record, flow);
    const any_record before = record;
    const uint64_t usual_offset = kestrel_vlan_offset;
    kestrel_vlan_offset = flow.vlans ? block_offset : 0;
    const int32_t verdict = filter_test(const_cast<filter_rules*>(&rules), &record.fields);
    kestrel_vlan_offset = usual_offset;
    if (std::memcmp(before.bytes, record.bytes, sizeof record.bytes) != 0)
        return 0xBAD;  // the record was changed
    return static_cast<uint32_t>(verdict);
}

std::string describe_flow(const model_flow& flow) {
    std::string text = "ip" + std::to_string(flow.version);
    const auto add = [&text](const char* name, uint32_t value) {
        text += std::string(" ") + name + std::to_string(value);
    };
    for (const words* address : {&flow.source, &flow.destination}) {
        for (unsigned i = 4; i-- > 0;)
            add(i == 3 ? "address " : "", (*address)[i]);
    }
    add("proto ", flow.protocol);
    add("ports ", flow.source_port);
    add("", flow.destination_port);
    add("phy ", flow.interface);
    add("packets ", flow.packets);
    add("bytes ", flow.bytes);
    for (const uint16_t id : flow.vlans.value_or(std::vector<uint16_t>()))
        add("vlan ", id);
    return text;
}

flow_generator::flow_generator(const filter_model& rules, uint64_t seed)
    : state_(seed * 2 + 1), addresses_{{}, {1, 0, 0, 0}} {
    constexpr size_t most = 256;  // rules of each kind that flows are made for
    const auto add_words = [this](const model_bounds& bounds) {
        words high;
        for (unsigned i = 0; i < 4; ++i)
            high[i] = bounds.low[i] + bounds.high[i];
        addresses_.insert(addresses_.end(), {bounds.low, high, bounds.high});
    };
    const auto add_range = [](std::vector<uint32_t>& edges, const model_range& range) {
        edges.insert(edges.end(), {range.low, range.low + range.high});
    };
    for (const auto* table : {&rules.fast4(), &rules.fast6()}) {
        for (size_t i = 0; i < std::min(table->size(), most); ++i) {
            const model_fast& entry = (*table)[i * table->size() / std::min(table->size(), most)];
            add_words(entry.source);
            add_words(entry.destination);
        }
    }
    for (size_t i = 0; i < std::min(rules.slow().size(), most); ++i) {
        const model_slow& rule = rules.slow()[i];
        add_words(rule.source);
        add_words(rule.destination);
        add_range(ports_, rule.source_port);
        add_range(ports_, rule.destination_port);
        add_range(vlans_, rule.vlan);
        add_range(interfaces_, rule.interface);
        add_range(packets_, rule.packets);
        add_range(bytes_, rule.bytes);
        protocols_.push_back(rule.proto);
    }
}

uint32_t flow_generator::below(uint32_t limit) {
    state_ = state_ * 6364136223846793005u + 1442695040888963407u;
    return static_cast<uint32_t>(((state_ >> 32) * limit) >> 32);
}

// On an edge, one beside it, or anywhere.
uint32_t flow_generator::number(const std::vector<uint32_t>& edges, uint32_t mask) {
    const uint32_t edge = edges[below(static_cast<uint32_t>(edges.size()))];
    constexpr uint32_t offsets[] = {0, 0, 0, 1, 0xFFFFFFFF, 0x10000, 0x10001};
    return (below(10) == 0 ? below(0xFFFFFFFF) : edge + offsets[below(7)]) & mask;
}

words flow_generator::address() {
    words result = addresses_[below(static_cast<uint32_t>(addresses_.size()))];
    for (uint32_t& word : result) {
        switch (below(8)) {
            case 0:
                ++word;
                break;
            case 1:
                --word;
                break;
            case 2:
                word = addresses_[below(static_cast<uint32_t>(addresses_.size()))][below(4)];
                break;
            default:
                break;
        }
    }
    return result;
}

model_flow flow_generator::next() {
    constexpr int versions[] = {4, 4, 4, 4, 6, 6, 6, 6, 6, 0};
    model_flow flow;
    flow.version = versions[below(10)];
    flow.source = address();
    flow.destination = address();
    flow.protocol = static_cast<uint8_t>(number(protocols_, 0xFF));
    flow.source_port = static_cast<uint16_t>(number(ports_, 0xFFFF));
    flow.destination_port = static_cast<uint16_t>(number(ports_, 0xFFFF));
    flow.interface = static_cast<uint16_t>(number(interfaces_, 0xFFFF));
    flow.packets = number(packets_, 0xFFFFFFFF);
    flow.bytes = number(bytes_, 0xFFFFFFFF);
    if (below(3) > 0) {
        flow.vlans.emplace(below(VLAN_BLOCK_IDS + 1));
        for (uint16_t& id : *flow.vlans)
            id = static_cast<uint16_t>(number(vlans_, 0xFFFF));
    }
    return flow;
}

}  // namespace kestrel_model
