#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kestrelexp/field.h"

namespace {

// "name:form" of each name that a style has for a field.
std::vector<std::string> names(const char* field, field_style style) {
    std::vector<std::string> found;
    const field_names* const all = field_names_of(field);
    for (const field_style_name& one : all->styles[style])
        if (one.name != nullptr)
            found.push_back(one.name + (":" + std::to_string(one.form)));
    return found;
}

using list = std::vector<std::string>;

TEST(FieldNames, AFieldHasAFormForEachStyle) {
    EXPECT_EQ(names("BYTES", FIELD_STYLE_GOFLOW2), list{"bytes:1"});
    EXPECT_EQ(names("BYTES", FIELD_STYLE_ECS), list{"network.bytes:1"});
    EXPECT_EQ(names("FLOW_END_NSEC", FIELD_STYLE_GOFLOW2), list{"time_flow_end_ns:1"});
    EXPECT_EQ(names("FLOW_END_NSEC", FIELD_STYLE_ECS), list{"event.end:14"});
    EXPECT_EQ(names("L2_SRC_MAC", FIELD_STYLE_GOFLOW2), list{"src_mac:7"});
    EXPECT_EQ(names("L2_SRC_MAC", FIELD_STYLE_ECS), list{"source.mac:8"});
}

TEST(FieldNames, AddressesOfBothVersionsShareAName) {
    EXPECT_EQ(names("L3_IPV4_ADDR_DST", FIELD_STYLE_GOFLOW2),
              names("L3_IPV6_ADDR_DST", FIELD_STYLE_GOFLOW2));
    EXPECT_EQ(names("L3_IPV4_ADDR_DST", FIELD_STYLE_ECS), list{"destination.ip:6"});
}

TEST(FieldNames, AFieldMayBeTwoMembers) {
    EXPECT_EQ(names("L4_ICMP_TYPE_CODE", FIELD_STYLE_GOFLOW2),
              (list{"icmp_type:3", "icmp_code:4"}));
    EXPECT_EQ(names("L4_PROTO", FIELD_STYLE_ECS),
              (list{"network.transport:11", "network.iana_number:2"}));
    EXPECT_EQ(names("L2_VLAN_0", FIELD_STYLE_GOFLOW2), (list{"vlan_id:1", "src_vlan:1"}));
}

TEST(FieldNames, PlainNumbersHaveTheirPlace) {
    const auto place = [](const char* field) {
        const field_names* const names = field_names_of(field);
        return std::pair<int, int>(names->offset, names->width);
    };
    EXPECT_EQ(place("BYTES"), std::pair(20, 4));
    EXPECT_EQ(place("FLOW_START_NSEC"), std::pair(0, 8));
    EXPECT_EQ(place("FLOW_END_NSEC"), std::pair(8, 8));
    EXPECT_EQ(place("L4_PROTO"), std::pair(72, 1));
    EXPECT_EQ(place("L4_PORT_DST"), std::pair(76, 2));
    EXPECT_EQ(place("L3_IPV4_ADDR_SRC"), std::pair(32, 4));
    for (const char* other : {"FLOW_START_SEC", "FLOW_END_SEC", "FLOW_END_RELATIVE_NSEC", "ZERO",
                              "L3_IPV6_ADDR_SRC", "L2_VLAN_0", "L2_SRC_MAC", "L2_MPLS_0",
                              "SAMPLING_ALGORITHM", "STARTUP_TIME_NSEC", "SRC_AS32"})
        EXPECT_EQ(place(other), std::pair(0, 0)) << other;
}

TEST(FieldNames, FieldsOfOurFiltersAreKnown) {
    EXPECT_EQ(names("SRC_AS32", FIELD_STYLE_GOFLOW2), list{"src_as:1"});
    EXPECT_EQ(names("DST_AS32", FIELD_STYLE_ECS), list{"destination.as.number:1"});
    EXPECT_EQ(names("SRC_AS", FIELD_STYLE_GOFLOW2), list{});
}

TEST(FieldNames, AKnownFieldMayHaveNone) {
    EXPECT_EQ(names("ZERO", FIELD_STYLE_GOFLOW2), list{});
    EXPECT_EQ(names("ZERO", FIELD_STYLE_ECS), list{});
}

TEST(FieldNames, NamesAreWhole) {
    EXPECT_EQ(field_names_of("BYTE"), nullptr);
    EXPECT_EQ(field_names_of("BYTES_"), nullptr);
    EXPECT_EQ(field_names_of(""), nullptr);
}

}  // namespace
