#include "record/field_rows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "record/elements.h"

namespace {

using namespace kestrel;
using kind = field_kind;
using form = value_form;
using block = record_block;

struct expected_row {
    const char* name;
    unsigned length;
    field_kind kind;
    value_form form;
    record_block block;
    unsigned offset;
    record_block exists_with;
    std::string element;  // empty: none
};

// In the order of the indices. Offsets are those of the layout that plugins are built against.
const expected_row all_rows[] = {
    {"ZERO", 8, kind::number, form::zeros, block::base, 0, block::base, ""},
    {"STARTUP_TIME_SEC", 8, kind::time, form::startup_time, block::base, 0, block::base, ""},
    {"STARTUP_TIME_MSEC", 8, kind::time, form::startup_time, block::base, 0, block::base,
     "STARTUP_TIME"},
    {"STARTUP_TIME_USEC", 8, kind::time, form::startup_time, block::base, 0, block::base, ""},
    {"STARTUP_TIME_NSEC", 8, kind::time, form::startup_time, block::base, 0, block::base, ""},
    {"BYTES", 4, kind::counter, form::stored, block::base, 20, block::base, "IN_BYTES"},
    {"PACKETS", 4, kind::counter, form::stored, block::base, 16, block::base, "IN_PKTS"},
    {"FLOW_START_SEC", 8, kind::time, form::since_1970, block::base, 0, block::base, ""},
    {"FLOW_START_MSEC", 8, kind::time, form::since_1970, block::base, 0, block::base,
     "FLOW_START_MILLISECONDS"},
    {"FLOW_START_USEC", 8, kind::time, form::since_1970, block::base, 0, block::base, ""},
    {"FLOW_START_NSEC", 8, kind::time, form::since_1970, block::base, 0, block::base, ""},
    {"FLOW_END_SEC", 8, kind::time, form::since_startup, block::base, 8, block::base, ""},
    {"FLOW_END_MSEC", 8, kind::time, form::since_1970, block::base, 8, block::base,
     "FLOW_END_MILLISECONDS"},
    {"FLOW_END_USEC", 8, kind::time, form::since_1970, block::base, 8, block::base, ""},
    {"FLOW_END_NSEC", 8, kind::time, form::since_1970, block::base, 8, block::base, ""},
    {"FLOW_START_RELATIVE_SEC", 8, kind::time, form::since_startup, block::base, 0, block::base,
     ""},
    {"FLOW_START_RELATIVE_MSEC", 8, kind::time, form::since_startup, block::base, 0, block::base,
     "FIRST_SWITCHED"},
    {"FLOW_START_RELATIVE_USEC", 8, kind::time, form::since_startup, block::base, 0, block::base,
     ""},
    {"FLOW_START_RELATIVE_NSEC", 8, kind::time, form::since_startup, block::base, 0, block::base,
     ""},
    {"FLOW_END_RELATIVE_SEC", 8, kind::time, form::since_startup, block::base, 8, block::base, ""},
    {"FLOW_END_RELATIVE_MSEC", 8, kind::time, form::since_startup, block::base, 8, block::base,
     "LAST_SWITCHED"},
    {"FLOW_END_RELATIVE_USEC", 8, kind::time, form::since_startup, block::base, 8, block::base, ""},
    {"FLOW_END_RELATIVE_NSEC", 8, kind::time, form::since_startup, block::base, 8, block::base, ""},
    {"SAMPLING_RATE", 2, kind::number, form::stored, block::base, 84, block::base,
     "SAMPLING_INTERVAL"},
    {"SAMPLING_ALGORITHM", 1, kind::number, form::is_not_zero, block::base, 84, block::base,
     "SAMPLING_ALGORITHM"},
    {"INPUT_INTERFACE", 2, kind::number, form::stored, block::base, 24, block::base, "INPUT_SNMP"},
    {"OUTPUT_INTERFACE", 2, kind::number, form::stored, block::base, 26, block::base,
     "OUTPUT_SNMP"},
    {"L2_VLAN_0", 2, kind::number, form::stored, block::vlan, 0, block::vlan, "VLAN_ID"},
    {"L2_VLAN_1", 2, kind::number, form::stored, block::vlan, 2, block::vlan, ""},
    {"L2_VLAN_2", 2, kind::number, form::stored, block::vlan, 4, block::vlan, ""},
    {"L2_VLAN_3", 2, kind::number, form::stored, block::vlan, 6, block::vlan, ""},
    {"L2_SRC_MAC", 6, kind::bytes, form::stored, block::mac, 0, block::mac, "SRC_MAC"},
    {"L2_DST_MAC", 6, kind::bytes, form::stored, block::mac, 6, block::mac, "DST_MAC"},
    {"L3_PROTO", 1, kind::number, form::stored, block::base, 64, block::base,
     "IP_PROTOCOL_VERSION"},
    {"L3_IPV4_ADDR_SRC", 4, kind::address, form::stored, block::base, 32, block::base,
     "IPV4_SRC_ADDR"},
    {"L3_IPV4_ADDR_DST", 4, kind::address, form::stored, block::base, 36, block::base,
     "IPV4_DST_ADDR"},
    {"L3_IPV4_TOS", 1, kind::number, form::stored, block::base, 40, block::base, "TOS"},
    {"L3_IPV6_ADDR_SRC", 16, kind::address, form::stored, block::base, 32, block::base,
     "IPV6_SRC_ADDR"},
    {"L3_IPV6_ADDR_DST", 16, kind::address, form::stored, block::base, 48, block::base,
     "IPV6_DST_ADDR"},
    {"L4_PROTO", 1, kind::number, form::stored, block::base, 72, block::base, "PROTOCOL"},
    {"L4_TCP_FLAGS", 1, kind::flags, form::stored, block::base, 78, block::base, "TCP_FLAGS"},
    {"L4_PORT_SRC", 2, kind::port, form::stored, block::base, 74, block::base, "L4_SRC_PORT"},
    {"L4_PORT_DST", 2, kind::port, form::stored, block::base, 76, block::base, "L4_DST_PORT"},
    {"L4_ICMP_TYPE_CODE", 2, kind::number, form::stored, block::base, 80, block::base,
     "ICMP_TYPE_CODE"},
    {"L2_MPLS_0", 3, kind::bytes, form::stored, block::mpls, 0, block::vlan, "MPLS_LABEL_1"},
    {"L2_MPLS_1", 3, kind::bytes, form::stored, block::mpls, 4, block::vlan, "MPLS_LABEL_2"},
    {"L2_MPLS_2", 3, kind::bytes, form::stored, block::mpls, 8, block::vlan, "MPLS_LABEL_3"},
    {"L2_MPLS_3", 3, kind::bytes, form::stored, block::mpls, 12, block::vlan, "MPLS_LABEL_4"},
    {"L2_MPLS_4", 3, kind::bytes, form::stored, block::mpls, 16, block::vlan, "MPLS_LABEL_5"},
    {"L2_MPLS_5", 3, kind::bytes, form::stored, block::mpls, 20, block::vlan, "MPLS_LABEL_6"},
    {"L2_MPLS_6", 3, kind::bytes, form::stored, block::mpls, 24, block::vlan, "MPLS_LABEL_7"},
    {"L2_MPLS_7", 3, kind::bytes, form::stored, block::mpls, 28, block::vlan, "MPLS_LABEL_8"},
    {"L2_MPLS_8", 3, kind::bytes, form::stored, block::mpls, 32, block::vlan, ""},
    {"L2_MPLS_9", 3, kind::bytes, form::stored, block::mpls, 36, block::vlan, ""},
};

TEST(FieldRows, EachHasItsIndexNameAndLength) {
    ASSERT_EQ(54u, std::size(field_rows));
    for (size_t i = 0; i < std::size(all_rows); ++i) {
        EXPECT_STREQ(all_rows[i].name, field_rows[i].name) << i;
        EXPECT_EQ(all_rows[i].length, field_rows[i].value.length) << all_rows[i].name;
    }
}

TEST(FieldRows, EachSaysWhereItsValueIs) {
    for (size_t i = 0; i < std::size(all_rows); ++i) {
        const expected_row& expected = all_rows[i];
        const field_row& row = field_rows[i];
        EXPECT_EQ(expected.kind, row.kind) << expected.name;
        EXPECT_EQ(expected.form, row.value.form) << expected.name;
        EXPECT_EQ(expected.block, row.value.block) << expected.name;
        EXPECT_EQ(expected.offset, row.value.offset) << expected.name;
        EXPECT_EQ(expected.exists_with, row.exists_with) << expected.name;
    }
}

TEST(FieldRows, EachHasTheElementThatItIsSentAs) {
    for (size_t i = 0; i < std::size(all_rows); ++i) {
        const auto& element = field_rows[i].element;
        EXPECT_EQ(all_rows[i].element, element ? element->name : "") << all_rows[i].name;
    }
}

TEST(FieldRows, ElementsThatNoFieldSuppliesHaveRowsOfTheirOwn) {
    std::vector<std::string> names;
    for (const auto& [element, field] : all_elements) {
        if (!field)
            names.emplace_back(element.name);
    }
    std::ranges::sort(names);
    EXPECT_EQ((std::vector<std::string>{"DST_AS", "DST_AS32", "DST_MASK", "ENGINE_ID",
                                        "ENGINE_TYPE", "FLOWS", "FLOW_ACTIVE_TIMEOUT",
                                        "FLOW_INACTIVE_TIMEOUT", "IPV4_NEXT_HOP", "IPV6_FLOW_LABEL",
                                        "OUT_BYTES", "OUT_PKTS", "SRC_AS", "SRC_AS32", "SRC_MASK"}),
              names);
}

// The indices of a program whose records have all blocks; without a block those after it move up.
TEST(FieldRows, TableHoldsTheRowsInTheirOrder) {
    kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = sizeof(flow_record);
    getter* table = getter_base_init();
    kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
    for (uint32_t i = 0; i < std::size(all_rows); ++i) {
        ASSERT_STREQ(all_rows[i].name, table[i].name);
        EXPECT_EQ(i, table[i].index) << all_rows[i].name;
        EXPECT_EQ(all_rows[i].length, table[i].length) << all_rows[i].name;
    }
    EXPECT_EQ(nullptr, table[std::size(all_rows)].name);
    std::free(table);
}

}  // namespace
