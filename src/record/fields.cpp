// The base vocabulary: one accessor and one validity test per field of the flow record, and the
// table that names them. Accessors only read the record and the start-up time; any thread may call
// them. Runs once per field of each exported flow: no allocation, no system call.
#include <cstddef>
#include <cstring>
#include <iterator>

#include "base/clock.h"
#include "base/wire.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"
#include "kestrelexp/service.h"
#include "record/copy_value.h"

namespace kestrel {
namespace {

// Where an accessor puts its value.
struct target {
    void* destination;
    uint32_t length;
    uint32_t network_order;
};

__attribute__((always_inline)) inline void put(const target& to, const void* source, size_t offset,
                                               size_t length) {
    copy_value(static_cast<uint8_t*>(to.destination), static_cast<const uint8_t*>(source) + offset,
               static_cast<int32_t>(length), static_cast<int32_t>(to.length),
               to.network_order != 0);
}

// A field of an optional block; nothing at all is written when the block is off.
void put_from_block(const target& to, const flow_record* record, uint64_t block_offset,
                    size_t offset, size_t length) {
    if (block_offset != 0)
        put(to, record, block_offset + offset, length);
}

void put_time(const target& to, uint64_t time_ns, uint64_t unit_ns) {
    const uint64_t value = time_ns / unit_ns;
    put(to, &value, 0, sizeof value);
}

uint64_t since_startup(uint64_t time_ns) {
    return time_ns - timer_get_startup_time();
}

// The number of filled places in a block, 0 when the block is off.
uint16_t block_count(const flow_record* record, uint64_t block_offset, size_t count_offset) {
    if (block_offset == 0)
        return 0;
    return load_native<uint16_t>(reinterpret_cast<const uint8_t*>(record) + block_offset +
                                 count_offset);
}

bool has_vlan(const flow_record* record, unsigned n) {
    return block_count(record, kestrel_vlan_offset, offsetof(vlan_block, count)) > n;
}

bool has_mpls(const flow_record* record, unsigned n) {
    return block_count(record, kestrel_mpls_offset, offsetof(mpls_block, count)) > n;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

// ---- Lengths ----

#define LENGTH(n)                      \
    uint32_t record_length_##n(void) { \
        return n;                      \
    }

LENGTH(1)
LENGTH(2)
LENGTH(3)
LENGTH(4)
LENGTH(6)
LENGTH(8)
LENGTH(16)

// ---- Validity tests ----

#define VALID(name, condition)                                                         \
    int record_##name##_ok(void*, [[maybe_unused]] const struct flow_record* record) { \
        return condition;                                                              \
    }

VALID(valid, 1)
VALID(ipv4, record->l3protocol == 4)
VALID(ipv6, record->l3protocol == 6)
VALID(icmp, record->l4protocol == 1 || record->l4protocol == 58)
VALID(tcp, record->l4protocol == 6)
VALID(ports, record->l4protocol == 6 || record->l4protocol == 17 || record->l4protocol == 132)
VALID(mac, kestrel_mac_offset != 0)
VALID(vlan0, has_vlan(record, 0))
VALID(vlan1, has_vlan(record, 1))
VALID(vlan2, has_vlan(record, 2))
VALID(vlan3, has_vlan(record, 3))
VALID(mpls0, has_mpls(record, 0))
VALID(mpls1, has_mpls(record, 1))
VALID(mpls2, has_mpls(record, 2))
VALID(mpls3, has_mpls(record, 3))
VALID(mpls4, has_mpls(record, 4))
VALID(mpls5, has_mpls(record, 5))
VALID(mpls6, has_mpls(record, 6))
VALID(mpls7, has_mpls(record, 7))
VALID(mpls8, has_mpls(record, 8))
VALID(mpls9, has_mpls(record, 9))

// ---- Accessors ----

#define GET(name, statement)                                                           \
    void record_get_##name(void*, [[maybe_unused]] const struct flow_record* record,   \
                           void* destination, uint32_t length, uint32_t network_order, \
                           const struct getter*) {                                     \
        [[maybe_unused]] const target to = {destination, length, network_order};       \
        statement;                                                                     \
    }
#define GET_FIELD(name, member) \
    GET(name, put(to, record, offsetof(flow_record, member), sizeof record->member))
#define GET_TIMES(name, seconds_of_ns, time_ns)                 \
    GET(name##_sec, put_time(to, seconds_of_ns, ns_per_second)) \
    GET(name##_msec, put_time(to, time_ns, ns_per_ms))          \
    GET(name##_usec, put_time(to, time_ns, ns_per_us))          \
    GET(name##_nsec, put_time(to, time_ns, 1))
#define GET_VLAN(n) \
    GET(vlan##n, put_from_block(to, record, kestrel_vlan_offset, n * sizeof(uint16_t), 2))
// A label and its traffic class and bottom bit are the low three bytes of their slot.
#define GET_MPLS(n) \
    GET(mpls##n, put_from_block(to, record, kestrel_mpls_offset, n * sizeof(uint32_t), 3))

GET(zero, std::memset(destination, 0, length))
GET_TIMES(startup_time, timer_get_startup_time(), timer_get_startup_time())
GET_FIELD(bytes, bytes)
GET_FIELD(packets, packets)
GET_TIMES(start, record->start, record->start)
// The end in seconds alone counts from the program's start, its siblings from the epoch. We keep it
// so: a template's meaning must not change under it.
GET_TIMES(end, since_startup(record->end), record->end)
GET_TIMES(relative_start, since_startup(record->start), since_startup(record->start))
GET_TIMES(relative_end, since_startup(record->end), since_startup(record->end))
GET_FIELD(sampling, sampling)
GET(sampling_algorithm, const uint8_t algorithm = record->sampling != 0;
    put(to, &algorithm, 0, sizeof algorithm))
GET_FIELD(inputsnmp, inputsnmp)
GET_FIELD(outputsnmp, outputsnmp)
GET_VLAN(0)
GET_VLAN(1)
GET_VLAN(2)
GET_VLAN(3)
GET(srcmac, put_from_block(to, record, kestrel_mac_offset, offsetof(mac_block, source), 6))
GET(dstmac, put_from_block(to, record, kestrel_mac_offset, offsetof(mac_block, destination), 6))
GET_FIELD(l3protocol, l3protocol)
GET_FIELD(srcipv4, ipv4.srcipv4)
GET_FIELD(dstipv4, ipv4.dstipv4)
GET_FIELD(tos, ipv4.tos)
GET_FIELD(srcipv6, ipv6.srcipv6)
GET_FIELD(dstipv6, ipv6.dstipv6)
GET_FIELD(l4protocol, l4protocol)
GET_FIELD(tcpflags, tcpflags)
GET_FIELD(srcport, srcport)
GET_FIELD(dstport, dstport)
GET_FIELD(icmptypecode, icmptypecode)
GET_MPLS(0)
GET_MPLS(1)
GET_MPLS(2)
GET_MPLS(3)
GET_MPLS(4)
GET_MPLS(5)
GET_MPLS(6)
GET_MPLS(7)
GET_MPLS(8)
GET_MPLS(9)

// ---- The base table ----

namespace kestrel {
namespace {

struct base_getter {
    const char* name;
    uint32_t length;        // bytes
    const uint64_t* block;  // the entry exists only with this block; null = always
    getter_valid_function* valid;
    getter_get_function* get;
};

constexpr const uint64_t* always = nullptr;
constexpr const uint64_t* vlan = &kestrel_vlan_offset;
constexpr const uint64_t* mac = &kestrel_mac_offset;

// Order gives the indices. The MPLS getters hang on the VLAN block by decision: without the MPLS
// block they exist, are never valid and write nothing.
constexpr base_getter base_getters[] = {
    {"ZERO", 8, always, record_valid_ok, record_get_zero},
    {"STARTUP_TIME_SEC", 8, always, record_valid_ok, record_get_startup_time_sec},
    {"STARTUP_TIME_MSEC", 8, always, record_valid_ok, record_get_startup_time_msec},
    {"STARTUP_TIME_USEC", 8, always, record_valid_ok, record_get_startup_time_usec},
    {"STARTUP_TIME_NSEC", 8, always, record_valid_ok, record_get_startup_time_nsec},
    {"BYTES", 4, always, record_valid_ok, record_get_bytes},
    {"PACKETS", 4, always, record_valid_ok, record_get_packets},
    {"FLOW_START_SEC", 8, always, record_valid_ok, record_get_start_sec},
    {"FLOW_START_MSEC", 8, always, record_valid_ok, record_get_start_msec},
    {"FLOW_START_USEC", 8, always, record_valid_ok, record_get_start_usec},
    {"FLOW_START_NSEC", 8, always, record_valid_ok, record_get_start_nsec},
    {"FLOW_END_SEC", 8, always, record_valid_ok, record_get_end_sec},
    {"FLOW_END_MSEC", 8, always, record_valid_ok, record_get_end_msec},
    {"FLOW_END_USEC", 8, always, record_valid_ok, record_get_end_usec},
    {"FLOW_END_NSEC", 8, always, record_valid_ok, record_get_end_nsec},
    {"FLOW_START_RELATIVE_SEC", 8, always, record_valid_ok, record_get_relative_start_sec},
    {"FLOW_START_RELATIVE_MSEC", 8, always, record_valid_ok, record_get_relative_start_msec},
    {"FLOW_START_RELATIVE_USEC", 8, always, record_valid_ok, record_get_relative_start_usec},
    {"FLOW_START_RELATIVE_NSEC", 8, always, record_valid_ok, record_get_relative_start_nsec},
    {"FLOW_END_RELATIVE_SEC", 8, always, record_valid_ok, record_get_relative_end_sec},
    {"FLOW_END_RELATIVE_MSEC", 8, always, record_valid_ok, record_get_relative_end_msec},
    {"FLOW_END_RELATIVE_USEC", 8, always, record_valid_ok, record_get_relative_end_usec},
    {"FLOW_END_RELATIVE_NSEC", 8, always, record_valid_ok, record_get_relative_end_nsec},
    {"SAMPLING_RATE", 2, always, record_valid_ok, record_get_sampling},
    {"SAMPLING_ALGORITHM", 1, always, record_valid_ok, record_get_sampling_algorithm},
    {"INPUT_INTERFACE", 2, always, record_valid_ok, record_get_inputsnmp},
    {"OUTPUT_INTERFACE", 2, always, record_valid_ok, record_get_outputsnmp},
    {"L2_VLAN_0", 2, vlan, record_vlan0_ok, record_get_vlan0},
    {"L2_VLAN_1", 2, vlan, record_vlan1_ok, record_get_vlan1},
    {"L2_VLAN_2", 2, vlan, record_vlan2_ok, record_get_vlan2},
    {"L2_VLAN_3", 2, vlan, record_vlan3_ok, record_get_vlan3},
    {"L2_SRC_MAC", 6, mac, record_mac_ok, record_get_srcmac},
    {"L2_DST_MAC", 6, mac, record_mac_ok, record_get_dstmac},
    {"L3_PROTO", 1, always, record_valid_ok, record_get_l3protocol},
    {"L3_IPV4_ADDR_SRC", 4, always, record_ipv4_ok, record_get_srcipv4},
    {"L3_IPV4_ADDR_DST", 4, always, record_ipv4_ok, record_get_dstipv4},
    {"L3_IPV4_TOS", 1, always, record_ipv4_ok, record_get_tos},
    {"L3_IPV6_ADDR_SRC", 16, always, record_ipv6_ok, record_get_srcipv6},
    {"L3_IPV6_ADDR_DST", 16, always, record_ipv6_ok, record_get_dstipv6},
    {"L4_PROTO", 1, always, record_valid_ok, record_get_l4protocol},
    {"L4_TCP_FLAGS", 1, always, record_tcp_ok, record_get_tcpflags},
    {"L4_PORT_SRC", 2, always, record_ports_ok, record_get_srcport},
    {"L4_PORT_DST", 2, always, record_ports_ok, record_get_dstport},
    {"L4_ICMP_TYPE_CODE", 2, always, record_icmp_ok, record_get_icmptypecode},
    {"L2_MPLS_0", 3, vlan, record_mpls0_ok, record_get_mpls0},
    {"L2_MPLS_1", 3, vlan, record_mpls1_ok, record_get_mpls1},
    {"L2_MPLS_2", 3, vlan, record_mpls2_ok, record_get_mpls2},
    {"L2_MPLS_3", 3, vlan, record_mpls3_ok, record_get_mpls3},
    {"L2_MPLS_4", 3, vlan, record_mpls4_ok, record_get_mpls4},
    {"L2_MPLS_5", 3, vlan, record_mpls5_ok, record_get_mpls5},
    {"L2_MPLS_6", 3, vlan, record_mpls6_ok, record_get_mpls6},
    {"L2_MPLS_7", 3, vlan, record_mpls7_ok, record_get_mpls7},
    {"L2_MPLS_8", 3, vlan, record_mpls8_ok, record_get_mpls8},
    {"L2_MPLS_9", 3, vlan, record_mpls9_ok, record_get_mpls9},
};
static_assert(std::size(base_getters) == 54, "ten places of 64 are left to plugins");

// Plugins ask __length_helper; labels are ours alone.
getter_length_function* length_function(uint32_t length) {
    return length == 3 ? record_length_3 : __length_helper(length);
}

}  // namespace
}  // namespace kestrel

struct getter* getter_base_init(void) {
    getter* table = nullptr;
    for (const base_getter& row : base_getters) {
        if (!row.block || *row.block != 0)
            getter_add(&table, row.name, row.length, nullptr, row.valid,
                       length_function(row.length), row.get);
    }
    return table;
}
