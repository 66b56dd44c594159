#include <gtest/gtest.h>

#include <string>

#include "kestrelexp/template.h"

namespace {

std::string text_of(const template_element* elements) {
    std::string text;
    for (; elements->name; ++elements)
        text += std::string(elements->name) + " " + std::to_string(elements->id) + "/" +
                std::to_string(elements->length) + "\n";
    return text;
}

TEST(Elements, IpfixTableIsExact) {
    EXPECT_EQ(
        "IN_BYTES 1/4\nIN_PKTS 2/4\nFLOWS 3/4\nPROTOCOL 4/1\nTOS 5/1\nTCP_FLAGS 6/1\n"
        "L4_SRC_PORT 7/2\nIPV4_SRC_ADDR 8/4\nL4_DST_PORT 11/2\nIPV4_DST_ADDR 12/4\n"
        "LAST_SWITCHED 21/4\nFIRST_SWITCHED 22/4\nOUT_BYTES 23/4\nOUT_PKTS 24/4\n"
        "IPV6_SRC_ADDR 27/16\nIPV6_DST_ADDR 28/16\nICMP_TYPE_CODE 32/2\n"
        "SAMPLING_INTERVAL 34/4\nSAMPLING_ALGORITHM 35/1\nFLOW_ACTIVE_TIMEOUT 36/4\n"
        "FLOW_INACTIVE_TIMEOUT 37/4\nENGINE_TYPE 38/4\nENGINE_ID 39/4\n"
        "IP_PROTOCOL_VERSION 60/1\nINPUT_SNMP 10/2\nOUTPUT_SNMP 14/2\nSRC_AS32 16/4\n"
        "DST_AS32 17/4\nSRC_AS 16/2\nDST_AS 17/2\nMPLS_LABEL_1 70/3\nMPLS_LABEL_2 71/3\n"
        "MPLS_LABEL_3 72/3\nMPLS_LABEL_4 73/3\nMPLS_LABEL_5 74/3\nMPLS_LABEL_6 75/3\n"
        "MPLS_LABEL_7 76/3\nMPLS_LABEL_8 77/3\nVLAN_ID 58/2\nSTARTUP_TIME 160/8\n"
        "FLOW_START_MILLISECONDS 152/8\nFLOW_END_MILLISECONDS 153/8\n",
        text_of(static_field_ipfix));
}

TEST(Elements, NetflowV9TableIsExact) {
    EXPECT_EQ(
        "IN_BYTES 1/4\nIN_PKTS 2/4\nFLOWS 3/4\nPROTOCOL 4/1\nTOS 5/1\nTCP_FLAGS 6/1\n"
        "L4_SRC_PORT 7/2\nIPV4_SRC_ADDR 8/4\nSRC_MASK 9/1\nINPUT_SNMP 10/2\nL4_DST_PORT 11/2\n"
        "IPV4_DST_ADDR 12/4\nDST_MASK 13/1\nOUTPUT_SNMP 14/2\nIPV4_NEXT_HOP 18/4\n"
        "SRC_AS32 16/4\nDST_AS32 17/4\nSRC_AS 16/2\nDST_AS 17/2\nLAST_SWITCHED 21/4\n"
        "FIRST_SWITCHED 22/4\nOUT_BYTES 23/4\nOUT_PKTS 24/4\nIPV6_SRC_ADDR 27/16\n"
        "IPV6_DST_ADDR 28/16\nIPV6_FLOW_LABEL 31/3\nICMP_TYPE_CODE 32/2\n"
        "SAMPLING_INTERVAL 34/4\nSAMPLING_ALGORITHM 35/1\nFLOW_ACTIVE_TIMEOUT 36/4\n"
        "FLOW_INACTIVE_TIMEOUT 37/4\nENGINE_TYPE 38/4\nENGINE_ID 39/4\nSRC_MAC 56/6\n"
        "DST_MAC 57/6\nIP_PROTOCOL_VERSION 60/1\nMPLS_LABEL_1 70/3\nMPLS_LABEL_2 71/3\n"
        "MPLS_LABEL_3 72/3\nMPLS_LABEL_4 73/3\nMPLS_LABEL_5 74/3\nMPLS_LABEL_6 75/3\n"
        "MPLS_LABEL_7 76/3\nMPLS_LABEL_8 77/3\nVLAN_ID 58/2\n",
        text_of(static_field_nf9));
}

const char* found(const char* name, const template_element* elements = static_field_ipfix) {
    const template_element* row = exporter_template_find_field(name, elements);
    return row ? row->name : "none";
}

TEST(Elements, ExactNameIsFound) {
    EXPECT_STREQ("FLOW_END_MILLISECONDS", found("FLOW_END_MILLISECONDS"));
}

TEST(Elements, NameThatBeginsWithARowIsThatRow) {
    EXPECT_STREQ("IN_BYTES", found("IN_BYTES_64"));
    EXPECT_STREQ("VLAN_ID", found("VLAN_IDENTIFIER"));
}

TEST(Elements, BeginningOfARowIsNotThatRow) {
    EXPECT_STREQ("none", found("IN_BYTE"));
    EXPECT_STREQ("none", found(""));
}

TEST(Elements, WideAsNumbersStandBeforeNarrowOnes) {
    for (const template_element* table : {static_field_ipfix, static_field_nf9}) {
        EXPECT_STREQ("SRC_AS", found("SRC_AS", table));
        EXPECT_STREQ("SRC_AS32", found("SRC_AS32", table));
        EXPECT_EQ(2, exporter_template_find_field("DST_AS", table)->length);
        EXPECT_EQ(4, exporter_template_find_field("DST_AS32", table)->length);
    }
}

TEST(Elements, MillisecondTimesAreOfIpfixOnly) {
    EXPECT_STREQ("none", found("FLOW_START_MILLISECONDS", static_field_nf9));
    EXPECT_STREQ("none", found("STARTUP_TIME", static_field_nf9));
    EXPECT_STREQ("none", found("SRC_MAC", static_field_ipfix));
}

TEST(Elements, MissingTableHasNoRow) {
    EXPECT_STREQ("none", found("TOS", nullptr));
}

TEST(Elements, TableIsPrintedAsNameAndLength) {
    constexpr template_element two[] = {{"ONE", 7, 16}, {"TWO", 8, 1}, {nullptr, 0, 0}};
    testing::internal::CaptureStdout();
    exporter_template_print_fields(two);
    EXPECT_EQ("Name,Length\nONE,16\nTWO,1\n", testing::internal::GetCapturedStdout());
}

}  // namespace
