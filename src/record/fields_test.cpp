#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/clock.h"
#include "kestrelexp/getter.h"

namespace {

using namespace kestrel;
using bytes = std::vector<uint8_t>;

constexpr uint64_t second = 1'000'000'000;
constexpr uint64_t startup = 1'600'000'000 * second;

constexpr clock_source clocks = {[] { return startup + 100 * second; },
                                 [] { return 100 * second; }};

// A record with room for all three blocks, in the order VLAN, MPLS, MAC.
struct full_record {
    flow_record base = {};
    vlan_block vlan = {};
    mpls_block mpls = {};
    mac_block mac = {};
};
static_assert(offsetof(full_record, mpls) == 98 && offsetof(full_record, mac) == 142);

class Record : public testing::Test {
  protected:
    void SetUp() override {
        set_clock_source(&clocks);
        timer_startup_time_update();
        record_.base.start = startup + 5'900'000'001;
        record_.base.end = startup + 7'123'456'789;
        record_.base.packets = 0x01020304;
        record_.base.bytes = 0x05060708;
        record_.base.inputsnmp = 0x1112;
        record_.base.outputsnmp = 0x1314;
        record_.base.l3protocol = 4;
        record_.base.ipv4 = {0xC0000201, 0x0A0B0C0D, 0xB8};
        record_.base.l4protocol = 6;
        record_.base.srcport = 0x2122;
        record_.base.dstport = 0x2324;
        record_.base.tcpflags = 0x1B;
        record_.base.icmptypecode = 0x2526;
        record_.base.sampling = 0x2728;
        record_.vlan = {{0x0101, 0x0202, 0x0303, 0x0404}, 4};
        for (uint32_t i = 0; i < 10; ++i)
            record_.mpls.entry[i] = 0x00AABBC0 + i;
        record_.mpls.count = 10;
        record_.mac = {{1, 2, 3, 4, 5, 6}, {7, 8, 9, 10, 11, 12}};
    }

    void TearDown() override {
        std::free(table_);
        blocks(false, false, false);
        set_clock_source(nullptr);
        timer_startup_time_update();
    }

    static void blocks(bool vlan, bool mpls, bool mac) {
        kestrel_vlan_offset = vlan ? offsetof(full_record, vlan) : 0;
        kestrel_mpls_offset = mpls ? offsetof(full_record, mpls) : 0;
        kestrel_mac_offset = mac ? offsetof(full_record, mac) : 0;
    }

    void build_table() {
        std::free(table_);
        table_ = getter_base_init();
    }

    uint32_t count() const {
        uint32_t n = 0;
        while (table_[n].name)
            ++n;
        return n;
    }

    const getter* exact(const std::string& name) const {
        for (const getter* entry = table_; entry->name; ++entry) {
            if (name == entry->name)
                return entry;
        }
        return nullptr;
    }

    bytes get(const std::string& name, uint32_t length, uint32_t network_order) {
        const getter* entry = exact(name);
        bytes value(16, 0xEE);
        entry->get(entry->context, &record_.base, value.data(), length, network_order, entry);
        value.resize(length);
        return value;
    }

    uint64_t number(const std::string& name) {
        const bytes value = get(name, 8, 0);
        uint64_t result;
        std::memcpy(&result, value.data(), sizeof result);
        return result;
    }

    full_record record_;
    getter* table_ = nullptr;
};

struct expected_getter {
    const char* name;
    uint32_t length;
    getter_valid_function* valid;
    uint64_t number;  // the value widened to 8 bytes in host order
};

// In table order. The time rows follow from start-up 1,600,000,000 s, start +5.900000001 s and end
// +7.123456789 s.
const expected_getter all_getters[] = {
    {"ZERO", 8, record_valid_ok, 0},
    {"STARTUP_TIME_SEC", 8, record_valid_ok, 1'600'000'000},
    {"STARTUP_TIME_MSEC", 8, record_valid_ok, 1'600'000'000'000},
    {"STARTUP_TIME_USEC", 8, record_valid_ok, 1'600'000'000'000'000},
    {"STARTUP_TIME_NSEC", 8, record_valid_ok, 1'600'000'000'000'000'000},
    {"BYTES", 4, record_valid_ok, 0x05060708},
    {"PACKETS", 4, record_valid_ok, 0x01020304},
    {"FLOW_START_SEC", 8, record_valid_ok, 1'600'000'005},
    {"FLOW_START_MSEC", 8, record_valid_ok, 1'600'000'005'900},
    {"FLOW_START_USEC", 8, record_valid_ok, 1'600'000'005'900'000},
    {"FLOW_START_NSEC", 8, record_valid_ok, 1'600'000'005'900'000'001},
    {"FLOW_END_SEC", 8, record_valid_ok, 7},
    {"FLOW_END_MSEC", 8, record_valid_ok, 1'600'000'007'123},
    {"FLOW_END_USEC", 8, record_valid_ok, 1'600'000'007'123'456},
    {"FLOW_END_NSEC", 8, record_valid_ok, 1'600'000'007'123'456'789},
    {"FLOW_START_RELATIVE_SEC", 8, record_valid_ok, 5},
    {"FLOW_START_RELATIVE_MSEC", 8, record_valid_ok, 5'900},
    {"FLOW_START_RELATIVE_USEC", 8, record_valid_ok, 5'900'000},
    {"FLOW_START_RELATIVE_NSEC", 8, record_valid_ok, 5'900'000'001},
    {"FLOW_END_RELATIVE_SEC", 8, record_valid_ok, 7},
    {"FLOW_END_RELATIVE_MSEC", 8, record_valid_ok, 7'123},
    {"FLOW_END_RELATIVE_USEC", 8, record_valid_ok, 7'123'456},
    {"FLOW_END_RELATIVE_NSEC", 8, record_valid_ok, 7'123'456'789},
    {"SAMPLING_RATE", 2, record_valid_ok, 0x2728},
    {"SAMPLING_ALGORITHM", 1, record_valid_ok, 1},
    {"INPUT_INTERFACE", 2, record_valid_ok, 0x1112},
    {"OUTPUT_INTERFACE", 2, record_valid_ok, 0x1314},
    {"L2_VLAN_0", 2, record_vlan0_ok, 0x0101},
    {"L2_VLAN_1", 2, record_vlan1_ok, 0x0202},
    {"L2_VLAN_2", 2, record_vlan2_ok, 0x0303},
    {"L2_VLAN_3", 2, record_vlan3_ok, 0x0404},
    {"L2_SRC_MAC", 6, record_mac_ok, 0x060504030201},
    {"L2_DST_MAC", 6, record_mac_ok, 0x0C0B0A090807},
    {"L3_PROTO", 1, record_valid_ok, 4},
    {"L3_IPV4_ADDR_SRC", 4, record_ipv4_ok, 0xC0000201},
    {"L3_IPV4_ADDR_DST", 4, record_ipv4_ok, 0x0A0B0C0D},
    {"L3_IPV4_TOS", 1, record_ipv4_ok, 0xB8},
    {"L3_IPV6_ADDR_SRC", 16, record_ipv6_ok, 0x0A0B0C0DC0000201},  // its low half
    {"L3_IPV6_ADDR_DST", 16, record_ipv6_ok, 0},
    {"L4_PROTO", 1, record_valid_ok, 6},
    {"L4_TCP_FLAGS", 1, record_tcp_ok, 0x1B},
    {"L4_PORT_SRC", 2, record_ports_ok, 0x2122},
    {"L4_PORT_DST", 2, record_ports_ok, 0x2324},
    {"L4_ICMP_TYPE_CODE", 2, record_icmp_ok, 0x2526},
    {"L2_MPLS_0", 3, record_mpls0_ok, 0xAABBC0},
    {"L2_MPLS_1", 3, record_mpls1_ok, 0xAABBC1},
    {"L2_MPLS_2", 3, record_mpls2_ok, 0xAABBC2},
    {"L2_MPLS_3", 3, record_mpls3_ok, 0xAABBC3},
    {"L2_MPLS_4", 3, record_mpls4_ok, 0xAABBC4},
    {"L2_MPLS_5", 3, record_mpls5_ok, 0xAABBC5},
    {"L2_MPLS_6", 3, record_mpls6_ok, 0xAABBC6},
    {"L2_MPLS_7", 3, record_mpls7_ok, 0xAABBC7},
    {"L2_MPLS_8", 3, record_mpls8_ok, 0xAABBC8},
    {"L2_MPLS_9", 3, record_mpls9_ok, 0xAABBC9},
};

TEST_F(Record, BaseTableHasAllGettersInOrder) {
    blocks(true, true, true);
    build_table();
    ASSERT_EQ(54u, count());
    for (uint32_t i = 0; i < 54; ++i) {
        const expected_getter& expected = all_getters[i];
        EXPECT_EQ(i, table_[i].index);
        EXPECT_STREQ(expected.name, table_[i].name);
        EXPECT_EQ(expected.length, table_[i].length) << expected.name;
        EXPECT_EQ(expected.length, table_[i].length_fn()) << expected.name;
        EXPECT_EQ(nullptr, table_[i].context) << expected.name;
        EXPECT_EQ(expected.valid, table_[i].valid) << expected.name;
    }
}

TEST_F(Record, EachGetterReadsItsField) {
    blocks(true, true, true);
    build_table();
    for (const expected_getter& expected : all_getters)
        EXPECT_EQ(expected.number, number(expected.name)) << expected.name;
}

TEST_F(Record, WithoutBlocksTheirGettersAreAbsent) {
    build_table();
    EXPECT_EQ(38u, count());
    EXPECT_EQ(nullptr, getter_by_name(table_, "L2_"));
}

TEST_F(Record, VlanBlockAloneBringsVlanAndMplsGetters) {
    blocks(true, false, false);
    build_table();
    EXPECT_EQ(52u, count());
    EXPECT_STREQ("L2_VLAN_0", getter_by_name(table_, "L2_VLAN")->name);
    EXPECT_NE(nullptr, exact("L2_MPLS_9"));
    EXPECT_EQ(nullptr, exact("L2_SRC_MAC"));
}

TEST_F(Record, MplsBlockAloneBringsNoGetters) {
    blocks(false, true, false);
    build_table();
    EXPECT_EQ(38u, count());
    EXPECT_EQ(nullptr, getter_by_name(table_, "L2_VLAN_"));
    EXPECT_EQ(nullptr, getter_by_name(table_, "L2_MPLS_"));
}

TEST_F(Record, MacBlockAloneMovesTheIndicesBehindIt) {
    blocks(false, false, true);
    build_table();
    EXPECT_EQ(40u, count());
    EXPECT_EQ(29u, exact("L3_PROTO")->index);
}

TEST_F(Record, ShortestNameFindsTheFirstGetter) {
    build_table();
    EXPECT_STREQ("ZERO", getter_by_name(table_, "")->name);
}

TEST_F(Record, EndInSecondsCountsFromTheStartUp) {
    build_table();
    record_.base.end = startup + 5'900'000'000;
    EXPECT_EQ(5u, number("FLOW_END_SEC"));
    EXPECT_EQ(1'600'000'005'900u, number("FLOW_END_MSEC"));
}

TEST_F(Record, SamplingAlgorithmIsOneForAnyRate) {
    build_table();
    record_.base.sampling = 0x0100;
    EXPECT_EQ((bytes{1}), get("SAMPLING_ALGORITHM", 1, 1));
    record_.base.sampling = 0;
    EXPECT_EQ((bytes{0}), get("SAMPLING_ALGORITHM", 1, 1));
}

TEST_F(Record, ZeroFillsTheWholeLength) {
    build_table();
    EXPECT_EQ(bytes(16, 0), get("ZERO", 16, 1));
    EXPECT_EQ(bytes(5, 0), get("ZERO", 5, 1));
}

TEST_F(Record, NumbersAreBigEndianInNetworkOrder) {
    build_table();
    EXPECT_EQ((bytes{0xC0, 0x00, 0x02, 0x01}), get("L3_IPV4_ADDR_SRC", 4, 1));
    EXPECT_EQ((bytes{0x21, 0x22}), get("L4_PORT_SRC", 2, 1));
    EXPECT_EQ((bytes{0x22, 0x21}), get("L4_PORT_SRC", 2, 0));
}

TEST_F(Record, Ipv6AddressesAreInWireOrderInNetworkOrder) {
    build_table();
    const bytes wire = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    std::reverse_copy(wire.begin(), wire.end(), record_.base.ipv6.dstipv6);
    EXPECT_EQ(wire, get("L3_IPV6_ADDR_DST", 16, 1));
    EXPECT_EQ(bytes(wire.rbegin(), wire.rend()), get("L3_IPV6_ADDR_DST", 16, 0));
}

TEST_F(Record, MacAddressesAreNeverSwapped) {
    blocks(false, false, true);
    build_table();
    EXPECT_EQ((bytes{1, 2, 3, 4, 5, 6}), get("L2_SRC_MAC", 6, 1));
    EXPECT_EQ((bytes{7, 8, 9, 10, 11, 12}), get("L2_DST_MAC", 6, 0));
}

TEST_F(Record, LabelsAreTheFirstThreeBytesOfTheirSlot) {
    blocks(true, true, false);
    build_table();
    EXPECT_EQ((bytes{0xC9, 0xBB, 0xAA}), get("L2_MPLS_9", 3, 1));
    EXPECT_EQ((bytes{0xC0, 0xBB, 0xAA}), get("L2_MPLS_0", 3, 0));
}

TEST_F(Record, AccessorsOfAbsentBlocksWriteNothing) {
    for (getter_get_function* accessor :
         {record_get_vlan0, record_get_vlan1, record_get_vlan2, record_get_vlan3, record_get_srcmac,
          record_get_dstmac, record_get_mpls0, record_get_mpls1, record_get_mpls2, record_get_mpls3,
          record_get_mpls4, record_get_mpls5, record_get_mpls6, record_get_mpls7, record_get_mpls8,
          record_get_mpls9}) {
        bytes value(16, 0xEE);
        accessor(nullptr, &record_.base, value.data(), 16, 1, nullptr);
        EXPECT_EQ(bytes(16, 0xEE), value);
    }
}

TEST_F(Record, IpTestsFollowTheVersion) {
    for (const uint8_t version : {uint8_t{0}, uint8_t{4}, uint8_t{6}}) {
        record_.base.l3protocol = version;
        EXPECT_EQ(version == 4, record_ipv4_ok(nullptr, &record_.base) != 0);
        EXPECT_EQ(version == 6, record_ipv6_ok(nullptr, &record_.base) != 0);
        EXPECT_EQ(1, record_valid_ok(nullptr, &record_.base));
    }
}

TEST_F(Record, TransportTestsFollowTheProtocol) {
    struct expectation {
        uint8_t protocol;
        bool icmp, tcp, ports;
    };
    for (const auto& [protocol, icmp, tcp, ports] :
         {expectation{1, true, false, false}, expectation{6, false, true, true},
          expectation{17, false, false, true}, expectation{47, false, false, false},
          expectation{58, true, false, false}, expectation{132, false, false, true}}) {
        record_.base.l4protocol = protocol;
        EXPECT_EQ(icmp, record_icmp_ok(nullptr, &record_.base) != 0) << int{protocol};
        EXPECT_EQ(tcp, record_tcp_ok(nullptr, &record_.base) != 0) << int{protocol};
        EXPECT_EQ(ports, record_ports_ok(nullptr, &record_.base) != 0) << int{protocol};
    }
}

TEST_F(Record, TagTestsFollowTheCount) {
    blocks(true, true, true);
    getter_valid_function* const vlan_tests[] = {record_vlan0_ok, record_vlan1_ok, record_vlan2_ok,
                                                 record_vlan3_ok};
    getter_valid_function* const mpls_tests[] = {
        record_mpls0_ok, record_mpls1_ok, record_mpls2_ok, record_mpls3_ok, record_mpls4_ok,
        record_mpls5_ok, record_mpls6_ok, record_mpls7_ok, record_mpls8_ok, record_mpls9_ok};
    for (uint16_t count = 0; count <= 10; ++count) {
        record_.vlan.count = count;
        record_.mpls.count = count;
        for (uint16_t n = 0; n < 4; ++n)
            EXPECT_EQ(count > n, vlan_tests[n](nullptr, &record_.base) != 0) << count << n;
        for (uint16_t n = 0; n < 10; ++n)
            EXPECT_EQ(count > n, mpls_tests[n](nullptr, &record_.base) != 0) << count << n;
    }
    EXPECT_NE(0, record_mac_ok(nullptr, &record_.base));
}

TEST_F(Record, TestsOfAbsentBlocksAreFalse) {
    EXPECT_EQ(0, record_vlan0_ok(nullptr, &record_.base));
    EXPECT_EQ(0, record_mpls0_ok(nullptr, &record_.base));
    EXPECT_EQ(0, record_mac_ok(nullptr, &record_.base));
}

}  // namespace
