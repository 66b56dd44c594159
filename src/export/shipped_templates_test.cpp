// The template files that are installed, and the page that describes what they may hold.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "export/template_exporter.h"
#include "tests/support/export_fixture.h"
#include "tests/support/source_tree.h"

namespace {

using namespace kestrel;
using kestrel_test::bytes;
using kestrel_test::keep;

class ShippedTemplates : public kestrel_test::export_fixture {
  protected:
    void SetUp() override {
        export_fixture::SetUp();
        flow_.ipv6 = {};
    }

    // Loaded by a probe without any optional block, silently.
    template_collection* load(const template_protocol& protocol) {
        std::string path =
            kestrel_test::in_source_tree("etc/" + std::string(protocol.default_file).substr(13));
        template_exporter exporter = {.protocol = &protocol};
        exporter.template_file = path.data();
        EXPECT_EQ("", messages_of([&] { load_templates(exporter, table_); }));
        return keep(exporter.templates);
    }

    // Element names of the template that the flow takes.
    std::string fields_for(const template_collection* from, uint8_t l3, uint8_t l4) {
        flow_.l3protocol = l3;
        flow_.l4protocol = l4;
        int32_t index;
        exporter_template_find(from, &flow_, &index);
        if (index < 0)
            return "none";
        const export_template& taken = from->templates[index];
        std::string names;
        for (unsigned i = 0; i < taken.field_count; ++i)
            names += std::string(i > 0 ? " " : "") + taken.elements[i]->name;
        return names;
    }

    void check(const template_protocol& protocol, const std::string& times) {
        const template_collection* made = load(protocol);
        EXPECT_EQ(8, made->count);
        const std::string head = "INPUT_SNMP OUTPUT_SNMP IP_PROTOCOL_VERSION PROTOCOL " + times +
                                 " IN_BYTES IN_PKTS SAMPLING_INTERVAL SAMPLING_ALGORITHM ";
        const std::map<uint8_t, std::string> addresses = {{4, "IPV4_SRC_ADDR IPV4_DST_ADDR TOS"},
                                                          {6, "IPV6_SRC_ADDR IPV6_DST_ADDR"}};
        const std::string ports = " L4_SRC_PORT L4_DST_PORT";
        for (const auto& [l3, words] : addresses) {
            EXPECT_EQ(head + words + ports + " TCP_FLAGS", fields_for(made, l3, 6));
            EXPECT_EQ(head + words + ports, fields_for(made, l3, 17));
            EXPECT_EQ(head + words + ports, fields_for(made, l3, 132));
            EXPECT_EQ(head + words + " ICMP_TYPE_CODE", fields_for(made, l3, 1));
            EXPECT_EQ(head + words + " ICMP_TYPE_CODE", fields_for(made, l3, 58));
            EXPECT_EQ(head + words, fields_for(made, l3, 47));
        }
    }

    // The file with every line that is switched off in force: its '#' and nothing else is taken
    // away.
    std::string with_examples(const char* name) {
        std::ifstream file(kestrel_test::in_source_tree("etc/" + std::string(name)));
        std::string text;
        for (std::string line; std::getline(file, line); text += line + "\n")
            if (line.size() > 1 && line[0] == '#' && line[1] != ' ')
                line.erase(0, 1);
        return text;
    }

    // The table of a probe with -e vlan -e mpls -e mac.
    void switch_blocks_on() {
        kestrel_vlan_offset = 88;
        kestrel_mpls_offset = 98;
        kestrel_mac_offset = 142;
        std::free(table_);
        table_ = getter_base_init();
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
    }

    template_collection* load_examples(const char* name, const template_element* elements) {
        char** lines = read_config(write_file(with_examples(name)).c_str());
        char** definitions = exporter_template_convert_config(lines);
        template_collection* made = exporter_template_init(definitions, elements, table_);
        keep(lines);
        std::free(definitions);
        return keep(made);
    }
};

TEST_F(ShippedTemplates, IpfixFileServesEveryKindOfFlow) {
    check(ipfix_protocol, "FLOW_START_MILLISECONDS FLOW_END_MILLISECONDS");
}

TEST_F(ShippedTemplates, NetflowV9FileServesEveryKindOfFlow) {
    check(netflow_v9_protocol, "FIRST_SWITCHED LAST_SWITCHED");
}

// Times by name: FLOW_END_SEC and its like would be read quite differently.
TEST_F(ShippedTemplates, TimesAreWhatTheElementsSay) {
    const auto value_of = [](const template_collection* from, const char* element) {
        const export_template& first = from->templates[0];
        for (unsigned i = 0; i < first.field_count; ++i)
            if (first.elements[i]->name == std::string(element))
                return std::string(first.getters[i].name);
        return std::string("none");
    };
    const template_collection* ipfix = load(ipfix_protocol);
    EXPECT_EQ("FLOW_START_MSEC", value_of(ipfix, "FLOW_START_MILLISECONDS"));
    EXPECT_EQ("FLOW_END_MSEC", value_of(ipfix, "FLOW_END_MILLISECONDS"));
    const template_collection* v9 = load(netflow_v9_protocol);
    EXPECT_EQ("FLOW_START_RELATIVE_MSEC", value_of(v9, "FIRST_SWITCHED"));
    EXPECT_EQ("FLOW_END_RELATIVE_MSEC", value_of(v9, "LAST_SWITCHED"));
}

TEST_F(ShippedTemplates, LinesThatAreOffCanBeSwitchedOn) {
    switch_blocks_on();
    for (const char* name : {"SRC_AS", "DST_AS", "SRC_AS32", "DST_AS32"})
        getter_add(&table_, name, 4, nullptr, record_valid_ok, record_length_4, record_get_zero);
    const auto fields_of = [](const template_collection* from) {
        int sum = 0;
        for (int32_t i = 0; i < from->count; ++i)
            sum += from->templates[i].field_count;
        return sum;
    };
    // 112 fields as shipped; AS numbers are 2 more in each of eight templates, as are MAC
    // addresses. IPv4 TCP has 16, which are 17 with a VLAN id and 18 with two labels.
    EXPECT_EQ("", messages_of([&] {
                  const auto* ipfix = load_examples("ipfix-template.txt", static_field_ipfix);
                  EXPECT_EQ(10, ipfix->count);
                  EXPECT_EQ(112 + 16 + 17 + 18, fields_of(ipfix));
                  const auto* v9 = load_examples("nf9-template.txt", static_field_nf9);
                  EXPECT_EQ(10, v9->count);
                  EXPECT_EQ(112 + 16 + 16 + 17 + 18, fields_of(v9));
              }));
}

TEST_F(ShippedTemplates, AsNumbersThatNobodyProvidesAreToldOfSixteenTimes) {
    switch_blocks_on();
    std::string expected;
    for (int templates = 0; templates < 8; ++templates)
        for (const char* name : {"SRC_AS32", "DST_AS32"})
            expected += std::string("Fallback to ZERO getter for value: ") + name + "\n";
    EXPECT_EQ(expected,
              messages_of([&] { load_examples("ipfix-template.txt", static_field_ipfix); }));
}

TEST_F(ShippedTemplates, VlanLinesEndAProbeWithoutTheBlock) {
    for (const char* name : {"SRC_AS32", "DST_AS32"})
        getter_add(&table_, name, 4, nullptr, record_valid_ok, record_length_4, record_get_zero);
    EXPECT_EXIT(load_examples("ipfix-template.txt", static_field_ipfix),
                testing::ExitedWithCode(255), "^Unable to found record value: L2_VLAN_0\n$");
}

// ---- docs/templates.md ----

std::string page() {
    std::ostringstream text;
    text << std::ifstream(kestrel_test::in_source_tree("docs/templates.md")).rdbuf();
    return text.str();
}

// How often the page has a table row that begins so.
size_t rows_with(const std::string& beginning) {
    const std::string text = page();
    size_t count = 0;
    for (size_t at = 0; (at = text.find("\n" + beginning, at)) != std::string::npos; ++at)
        ++count;
    return count;
}

TEST(TemplatesPage, HasEveryElement) {
    std::map<std::string, std::pair<bool, bool>> rows;
    const auto start_of = [](const template_element& row) {
        return "| `" + std::string(row.name) + "` | " + std::to_string(row.id) + " | " +
               std::to_string(row.length) + " | ";
    };
    for (const template_element* row = static_field_ipfix; row->name; ++row)
        rows[start_of(*row)].first = true;
    for (const template_element* row = static_field_nf9; row->name; ++row)
        rows[start_of(*row)].second = true;
    for (const auto& [start, in] : rows)
        EXPECT_EQ(1u, rows_with(start + (in.first ? "yes | " : "no | ") +
                                (in.second ? "yes | " : "no | ")))
            << start;
}

TEST(TemplatesPage, HasEveryValue) {
    kestrel_vlan_offset = kestrel_mac_offset = 88;
    getter* table = getter_base_init();
    kestrel_vlan_offset = kestrel_mac_offset = 0;
    size_t count = 0;
    for (const getter* entry = table; entry->name; ++entry, ++count) {
        const std::string start = "| `" + std::string(entry->name) + "` | ";
        // SAMPLING_ALGORITHM is an element as well.
        EXPECT_EQ(1u, rows_with(start + std::to_string(entry->length) + " | ")) << start;
    }
    EXPECT_EQ(54u, count);
    std::free(table);
}

// Examples are what stands between ``` lines and begins with BEGIN-TEMPLATE.
TEST(TemplatesPage, ExamplesAreTemplates) {
    kestrel_vlan_offset = 88;
    getter* table = keep(getter_base_init());
    kestrel_vlan_offset = 0;
    getter_add(&table, "SRC_AS32", 4, nullptr, record_valid_ok, record_length_4, record_get_zero);
    getter_add(&table, "END_REASON", 1, nullptr, record_valid_ok, record_length_1, record_get_zero);
    keep(table);
    const std::string text = page();
    const std::string opening = "```\nBEGIN-TEMPLATE";
    std::vector<std::vector<unsigned>> fields;
    for (size_t at = 0; (at = text.find(opening, at)) != std::string::npos; ++at) {
        std::istringstream example(text.substr(at + 4, text.find("\n```", at + 4) - at - 4));
        std::vector<std::string> lines;
        for (std::string line; std::getline(example, line);)
            lines.push_back(line);
        std::vector<char*> array;
        for (std::string& line : lines)
            array.push_back(line.data());
        array.push_back(nullptr);
        char** definitions = exporter_template_convert_config(array.data());
        const template_collection* made =
            keep(exporter_template_init(definitions, static_field_ipfix, table));
        std::free(definitions);
        fields.emplace_back();
        for (int32_t i = 0; i < made->count; ++i)
            fields.back().push_back(made->templates[i].field_count);
    }
    EXPECT_EQ((std::vector<std::vector<unsigned>>{{4}, {11, 10, 7}, {6}, {4}}), fields);
}

TEST_F(ShippedTemplates, BytesOnThePageAreThoseOnTheWire) {
    std::string definition =
        "IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IPV4_DST_ADDR=L3_IPV4_ADDR_DST,IN_BYTES=BYTES,"
        "IN_PKTS=PACKETS";
    char* definitions[] = {definition.data(), nullptr};
    template_collection* made =
        keep(exporter_template_init(definitions, static_field_ipfix, table_));
    made->set_id = 2;
    flow_.ipv4 = {0xC0000201, 0xC6336407, 0};
    flow_.bytes = 1500;
    flow_.packets = 3;
    exporter_template_add_record(made, &flow_, -1);
    bytes packet(44);
    template_cursor cursor = {packet.data(), 0, 0};
    exporter_template_fill_packet_templates(made, &cursor);
    exporter_template_fill_packet_data(made, &cursor);
    std::string shown;
    for (const uint8_t byte : packet) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        shown += digits;
    }
    // Two blocks of hexadecimal digits, remarks after a wide gap.
    std::string on_page;
    const std::string text = page();
    for (const char* start : {"0002 0018 ", "0100 0014 "}) {
        const size_t at = text.find(start);
        ASSERT_NE(std::string::npos, at);
        std::istringstream lines(text.substr(at, text.find("```", at) - at));
        for (std::string line; std::getline(lines, line);)
            for (const char c : line.substr(0, line.find("        ")))
                if (c != ' ')
                    on_page += c;
    }
    EXPECT_EQ(on_page, shown);
}

}  // namespace
