#include "flow_message.h"

#include <cstring>

#include "protobuf.h"

namespace kafka {

namespace {

enum form : int32_t {
    number,
    high_byte,  // of 16 bits
    low_byte,
    rate,     // 0 is 1: one in one
    ether,    // the IP version as an Ethernet type
    address,  // bytes
    mac,      // 48 bits as a number, the first byte highest
};

struct row {
    uint32_t number;  // in the message
    form how;
    const char* field;  // ours
};

// Numbers of FlowMessage that do not come from a field of the record.
constexpr uint32_t sequence_num = 4;
constexpr uint32_t sampler = 11;
constexpr uint32_t mpls_label = 81;
constexpr uint32_t time_received_ns = 110;

constexpr row rows[] = {
    {3, rate, "SAMPLING_RATE"},            // sampling_rate
    {6, address, "L3_IPV4_ADDR_SRC"},      // src_addr
    {6, address, "L3_IPV6_ADDR_SRC"},      //
    {7, address, "L3_IPV4_ADDR_DST"},      // dst_addr
    {7, address, "L3_IPV6_ADDR_DST"},      //
    {9, number, "BYTES"},                  // bytes
    {10, number, "PACKETS"},               // packets
    {14, number, "SRC_AS32"},              // src_as
    {15, number, "DST_AS32"},              // dst_as
    {18, number, "INPUT_INTERFACE"},       // in_if
    {19, number, "OUTPUT_INTERFACE"},      // out_if
    {20, number, "L4_PROTO"},              // proto
    {21, number, "L4_PORT_SRC"},           // src_port
    {22, number, "L4_PORT_DST"},           // dst_port
    {23, number, "L3_IPV4_TOS"},           // ip_tos
    {26, number, "L4_TCP_FLAGS"},          // tcp_flags
    {27, mac, "L2_SRC_MAC"},               // src_mac
    {28, mac, "L2_DST_MAC"},               // dst_mac
    {29, number, "L2_VLAN_0"},             // vlan_id
    {33, number, "L2_VLAN_0"},             // src_vlan
    {30, ether, "L3_PROTO"},               // etype
    {31, high_byte, "L4_ICMP_TYPE_CODE"},  // icmp_type
    {32, low_byte, "L4_ICMP_TYPE_CODE"},   // icmp_code
    {111, number, "FLOW_START_NSEC"},      // time_flow_start_ns
    {112, number, "FLOW_END_NSEC"},        // time_flow_end_ns
};

constexpr const char* label_fields[] = {"L2_MPLS_0", "L2_MPLS_1", "L2_MPLS_2", "L2_MPLS_3",
                                        "L2_MPLS_4", "L2_MPLS_5", "L2_MPLS_6", "L2_MPLS_7",
                                        "L2_MPLS_8", "L2_MPLS_9"};

constexpr size_t longest_tag = 2;
constexpr size_t longest_address = 16;
constexpr size_t longest_label = 3;
static_assert(112 << 3 < 1 << 14);
// Each row as its longest, the four fields beside them, the length in front.
static_assert(std::size(rows) * (longest_tag + 1 + longest_address) +
                  std::size(label_fields) * longest_label +
                  4 * (longest_tag + 1 + longest_address) + longest_varint <
              flow_message::longest);

const getter* find_field(const getter* table, const char* name) {
    for (; table != nullptr && table->name != nullptr; ++table)
        if (std::strcmp(table->name, name) == 0)
            return table;
    return nullptr;
}

bool is_valid(const getter& field, const flow_record& record) {
    return field.valid(field.context, &record) != 0;
}

uint64_t value_of(const getter& field, const flow_record& record) {
    uint64_t value = 0;
    field.get(field.context, &record, &value, sizeof value, 0, &field);
    return value;
}

// Stored as on the wire.
uint64_t mac_number(const getter& field, const flow_record& record) {
    uint8_t bytes[6] = {};
    field.get(field.context, &record, bytes, sizeof bytes, 1, &field);
    uint64_t value = 0;
    for (const uint8_t byte : bytes)
        value = value << 8 | byte;
    return value;
}

uint64_t ether_type(uint64_t version) {
    constexpr uint64_t ipv4 = 0x0800;
    constexpr uint64_t ipv6 = 0x86DD;
    return version == 6 ? ipv6 : ipv4;
}

uint8_t* put_address(uint32_t where, const getter& field, const flow_record& record, uint8_t* at) {
    uint8_t bytes[longest_address];
    const uint32_t length = field.length;
    if (length > sizeof bytes)
        return at;
    field.get(field.context, &record, bytes, length, 1, &field);
    return put_bytes(at, where, bytes, length);
}

}  // namespace

flow_message::flow_message(const getter* getters, const sampler_address& sampler)
    : sampler_(sampler) {
    for (const row& one : rows)
        if (const getter* const field = find_field(getters, one.field))
            rows_.push_back({one.number, one.how, field});
    for (const char* const name : label_fields)
        if (const getter* const field = find_field(getters, name))
            labels_.push_back(field);
}

uint8_t* flow_message::put_row(const bound_row& row, const flow_record& record, uint8_t* at) const {
    const getter& field = *row.field;
    if (!is_valid(field, record))
        return at;
    switch (row.form) {
        case number:
            return put_number(at, row.number, value_of(field, record));
        case high_byte:
            return put_number(at, row.number, value_of(field, record) >> 8 & 0xFF);
        case low_byte:
            return put_number(at, row.number, value_of(field, record) & 0xFF);
        case rate: {
            const uint64_t value = value_of(field, record);
            return put_number(at, row.number, value == 0 ? 1 : value);
        }
        case ether:
            return put_number(at, row.number, ether_type(value_of(field, record)));
        case mac:
            return put_number(at, row.number, mac_number(field, record));
        default:
            return put_address(row.number, field, record, at);
    }
}

// A repeated number is one field: all its varints together.
uint8_t* flow_message::put_labels(const flow_record& record, uint8_t* at) const {
    constexpr unsigned below_label = 4;  // bits: traffic class and bottom of stack
    uint8_t packed[std::size(label_fields) * longest_label];
    uint8_t* end = packed;
    for (const getter* const field : labels_)
        if (is_valid(*field, record))
            end = put_varint(end, value_of(*field, record) >> below_label);
    return end == packed ? at
                         : put_bytes(at, mpls_label, packed, static_cast<size_t>(end - packed));
}

size_t flow_message::write(const flow_record& record, uint64_t now_ns, uint32_t number,
                           uint8_t* to) const {
    // The length goes before the message, and is known after it.
    uint8_t message[longest];
    uint8_t* at = message;
    for (const bound_row& row : rows_)
        at = put_row(row, record, at);
    at = put_labels(record, at);
    at = put_number(at, sequence_num, number);
    at = put_bytes(at, kafka::sampler, sampler_.bytes, sampler_.length);
    at = put_number(at, time_received_ns, now_ns);
    const auto length = static_cast<size_t>(at - message);
    uint8_t* const start = put_varint(to, length);
    std::memcpy(start, message, length);
    return static_cast<size_t>(start - to) + length;
}

}  // namespace kafka
