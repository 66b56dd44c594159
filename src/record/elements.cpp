// The element tables of IPFIX and NetFlow v9: number and width on the wire of everything that a
// template may name. Constant data, and the two functions that read such a table; any thread.
#include <cstdio>
#include <cstring>

#include "kestrelexp/template.h"

// A name is found by its first row that begins it, so SRC_AS32 has to stand before SRC_AS.
constexpr struct template_element static_field_ipfix[] = {
    {"IN_BYTES", 1, 4},
    {"IN_PKTS", 2, 4},
    {"FLOWS", 3, 4},
    {"PROTOCOL", 4, 1},
    {"TOS", 5, 1},
    {"TCP_FLAGS", 6, 1},
    {"L4_SRC_PORT", 7, 2},
    {"IPV4_SRC_ADDR", 8, 4},
    {"L4_DST_PORT", 11, 2},
    {"IPV4_DST_ADDR", 12, 4},
    {"LAST_SWITCHED", 21, 4},
    {"FIRST_SWITCHED", 22, 4},
    {"OUT_BYTES", 23, 4},
    {"OUT_PKTS", 24, 4},
    {"IPV6_SRC_ADDR", 27, 16},
    {"IPV6_DST_ADDR", 28, 16},
    {"ICMP_TYPE_CODE", 32, 2},
    {"SAMPLING_INTERVAL", 34, 4},
    {"SAMPLING_ALGORITHM", 35, 1},
    {"FLOW_ACTIVE_TIMEOUT", 36, 4},
    {"FLOW_INACTIVE_TIMEOUT", 37, 4},
    {"ENGINE_TYPE", 38, 4},
    {"ENGINE_ID", 39, 4},
    {"IP_PROTOCOL_VERSION", 60, 1},
    {"INPUT_SNMP", 10, 2},
    {"OUTPUT_SNMP", 14, 2},
    {"SRC_AS32", 16, 4},
    {"DST_AS32", 17, 4},
    {"SRC_AS", 16, 2},
    {"DST_AS", 17, 2},
    {"MPLS_LABEL_1", 70, 3},
    {"MPLS_LABEL_2", 71, 3},
    {"MPLS_LABEL_3", 72, 3},
    {"MPLS_LABEL_4", 73, 3},
    {"MPLS_LABEL_5", 74, 3},
    {"MPLS_LABEL_6", 75, 3},
    {"MPLS_LABEL_7", 76, 3},
    {"MPLS_LABEL_8", 77, 3},
    {"VLAN_ID", 58, 2},
    {"STARTUP_TIME", 160, 8},
    {"FLOW_START_MILLISECONDS", 152, 8},
    {"FLOW_END_MILLISECONDS", 153, 8},
    {nullptr, 0, 0},
};

constexpr struct template_element static_field_nf9[] = {
    {"IN_BYTES", 1, 4},
    {"IN_PKTS", 2, 4},
    {"FLOWS", 3, 4},
    {"PROTOCOL", 4, 1},
    {"TOS", 5, 1},
    {"TCP_FLAGS", 6, 1},
    {"L4_SRC_PORT", 7, 2},
    {"IPV4_SRC_ADDR", 8, 4},
    {"SRC_MASK", 9, 1},
    {"INPUT_SNMP", 10, 2},
    {"L4_DST_PORT", 11, 2},
    {"IPV4_DST_ADDR", 12, 4},
    {"DST_MASK", 13, 1},
    {"OUTPUT_SNMP", 14, 2},
    {"IPV4_NEXT_HOP", 18, 4},
    {"SRC_AS32", 16, 4},
    {"DST_AS32", 17, 4},
    {"SRC_AS", 16, 2},
    {"DST_AS", 17, 2},
    {"LAST_SWITCHED", 21, 4},
    {"FIRST_SWITCHED", 22, 4},
    {"OUT_BYTES", 23, 4},
    {"OUT_PKTS", 24, 4},
    {"IPV6_SRC_ADDR", 27, 16},
    {"IPV6_DST_ADDR", 28, 16},
    {"IPV6_FLOW_LABEL", 31, 3},
    {"ICMP_TYPE_CODE", 32, 2},
    {"SAMPLING_INTERVAL", 34, 4},
    {"SAMPLING_ALGORITHM", 35, 1},
    {"FLOW_ACTIVE_TIMEOUT", 36, 4},
    {"FLOW_INACTIVE_TIMEOUT", 37, 4},
    {"ENGINE_TYPE", 38, 4},
    {"ENGINE_ID", 39, 4},
    {"SRC_MAC", 56, 6},
    {"DST_MAC", 57, 6},
    {"IP_PROTOCOL_VERSION", 60, 1},
    {"MPLS_LABEL_1", 70, 3},
    {"MPLS_LABEL_2", 71, 3},
    {"MPLS_LABEL_3", 72, 3},
    {"MPLS_LABEL_4", 73, 3},
    {"MPLS_LABEL_5", 74, 3},
    {"MPLS_LABEL_6", 75, 3},
    {"MPLS_LABEL_7", 76, 3},
    {"MPLS_LABEL_8", 77, 3},
    {"VLAN_ID", 58, 2},
    {nullptr, 0, 0},
};

const struct template_element* exporter_template_find_field(
    const char* name, const struct template_element* elements) {
    for (const template_element* row = elements; row && row->name; ++row) {
        if (std::strncmp(row->name, name, std::strlen(row->name)) == 0)
            return row;
    }
    return nullptr;
}

void exporter_template_print_fields(const struct template_element* elements) {
    std::printf("Name,Length\n");
    for (const template_element* row = elements; row && row->name; ++row)
        std::printf("%s,%i\n", row->name, int{row->length});
}
