// Not under the thread sanitizer: it is all one thread.
#include "export/numbered_element.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "export/template_exporter.h"
#include "tests/support/export_fixture.h"

namespace {

using namespace kestrel;
using kestrel_test::bytes;
using kestrel_test::keep;

// A flow with blocks where -e vlan -e mpls -e mac put them.
struct whole_record {
    flow_record base;
    vlan_block vlan;
    mpls_block mpls;
    mac_block mac;
};

class NumberedElement : public kestrel_test::export_fixture {
  protected:
    void SetUp() override {
        export_fixture::SetUp();
        kestrel_vlan_offset = offsetof(whole_record, vlan);
        kestrel_mpls_offset = offsetof(whole_record, mpls);
        kestrel_mac_offset = offsetof(whole_record, mac);
        std::free(table_);
        table_ = getter_base_init();
        whole_.base = flow_;
    }
    void TearDown() override {
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
        export_fixture::TearDown();
    }

    template_collection* init(std::string definition,
                              const template_element* elements = static_field_ipfix) {
        char* definitions[] = {definition.data(), nullptr};
        template_collection* made = keep(exporter_template_init(definitions, elements, table_));
        made->set_id = elements == static_field_ipfix ? 2 : 0;
        return made;
    }

    // What the fields of a definition are on the wire for the flow, without header and padding.
    bytes record(const std::string& definition) {
        template_collection* made = init(definition);
        exporter_template_add_record(made, &whole_.base, 0);
        const template_data& data = *made->templates[0].data;
        return {data.records, data.records + data.length};
    }

    static bytes template_set(template_collection* made) {
        bytes set(1500, 0xEE);
        template_cursor cursor = {set.data(), 0, 0};
        EXPECT_EQ(1u, exporter_template_fill_packet_templates(made, &cursor));
        set.resize(cursor.offset);
        return set;
    }

    whole_record whole_ = {};
};

// ---- On the wire ----

TEST_F(NumberedElement, IpfixTemplateHasNumberLengthAndEnterprise) {
    EXPECT_EQ((bytes{0,    2,    0, 24,                    // template set
                     1,    0,    0, 3,                     // template 256 of three fields
                     0x01, 0xCD, 0, 4,                     // 461
                     0x80, 0x39, 0, 4,  0, 0, 0x8B, 0x30,  // 57 of the enterprise 35632
                     0,    1,    0, 4}),
              template_set(init("id461/4=BYTES,id35632.57/4=PACKETS,IN_BYTES=BYTES")));
}

TEST_F(NumberedElement, NetflowV9TemplateHasNumberAndLength) {
    EXPECT_EQ((bytes{0, 0, 0, 12, 1, 0, 0, 1, 0x7F, 0xFF, 0, 2}),
              template_set(init("id32767/2=L4_PORT_SRC", static_field_nf9)));
}

TEST_F(NumberedElement, LargestNumbersAreTaken) {
    EXPECT_EQ((bytes{0,    2,    0, 20, 1,    0,    0,    2,  //
                     0xFF, 0xFF, 0, 1,  0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0xFF, 0xFE}),
              template_set(init("id4294967295.32767/1=L4_PROTO,id1/65534=BYTES")));
}

TEST_F(NumberedElement, RecordsHaveTheValues) {
    EXPECT_EQ((bytes{5, 6, 7, 8, 1, 2, 3, 4, 0x21, 0x22}),
              record("id461/4=BYTES,id35632.57/4=PACKETS,L4_SRC_PORT=L4_PORT_SRC"));
}

TEST_F(NumberedElement, ValuesAreAsWideAsTheLengthSays) {
    EXPECT_EQ((bytes{8}), record("id1/1=BYTES"));
    EXPECT_EQ((bytes{7, 8}), record("id1/2=BYTES"));
    EXPECT_EQ((bytes{6, 7, 8}), record("id1/3=BYTES"));
    EXPECT_EQ((bytes{0, 5, 6, 7, 8}), record("id1/5=BYTES"));
    EXPECT_EQ((bytes{0, 0, 0, 0, 5, 6, 7, 8}), record("id1/8=BYTES"));
    // 1,600,000,001,500 ms are 0x174'876E'85DC.
    EXPECT_EQ((bytes{0x74, 0x87, 0x6E, 0x85, 0xDC}), record("id152/5=FLOW_START_MSEC"));
    EXPECT_EQ((bytes{0x01, 0x74, 0x87, 0x6E, 0x85, 0xDC}), record("id152/6=FLOW_START_MSEC"));
    EXPECT_EQ((bytes{0, 0, 0}), record("id1/3=ZERO"));
}

TEST_F(NumberedElement, CutNumbersDoNotRunIntoTheNextField) {
    EXPECT_EQ((bytes{6, 7, 8, 0x1B, 6, 7, 8}),
              record("id1/3=BYTES,id6/1=L4_TCP_FLAGS,id1/3=BYTES"));
}

// RFC 3032: 20 bits of label, traffic class, bottom of stack. By name they leave as they are
// stored.
TEST_F(NumberedElement, LabelsAreInTheOrderOfTheWire) {
    whole_.mpls.count = 1;
    whole_.mpls.entry[0] = 0x123456;
    EXPECT_EQ((bytes{0x12, 0x34, 0x56}), record("id70/3=L2_MPLS_0"));
    EXPECT_EQ((bytes{0x34, 0x56}), record("id70/2=L2_MPLS_0"));
    EXPECT_EQ((bytes{0, 0x12, 0x34, 0x56}), record("id70/4=L2_MPLS_0"));
    EXPECT_EQ((bytes{0x56, 0x34, 0x12}), record("MPLS_LABEL_1=L2_MPLS_0"));
}

TEST_F(NumberedElement, AddressesOfFramesStayInTheOrderOfTheWire) {
    whole_.mac = {{2, 0, 0, 0, 0, 1}, {2, 0, 0, 0, 0, 9}};
    EXPECT_EQ((bytes{2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 9}),
              record("id56/6=L2_SRC_MAC,id80/6=L2_DST_MAC"));
}

TEST_F(NumberedElement, TemplateIsChosenByItsValues) {
    char first[] = "id243/2=L2_VLAN_0,id245/2=L2_VLAN_1,id70/3=L2_MPLS_0";
    char second[] = "id58/2=L2_VLAN_0,id1/3=BYTES";
    char third[] = "id1/4=BYTES";
    char* definitions[] = {third, second, first, nullptr};
    const template_collection* made =
        keep(exporter_template_init(definitions, static_field_ipfix, table_));
    int32_t index = 7;
    EXPECT_EQ(4u, exporter_template_find(made, &whole_.base, &index));
    EXPECT_EQ(2, index);
    whole_.vlan.count = 2;
    EXPECT_EQ(5u, exporter_template_find(made, &whole_.base, &index));
    EXPECT_EQ(1, index);
    whole_.mpls.count = 1;
    EXPECT_EQ(7u, exporter_template_find(made, &whole_.base, &index));
    EXPECT_EQ(0, index);
}

// A plugin's field whose test and accessor need what they were registered with.
uint32_t plugin_number = 0xA1B2C3D4;
int is_plugin_number(void* context, const flow_record*) {
    return context == &plugin_number;
}
void get_plugin_number(void* context, const flow_record*, void* destination, uint32_t length,
                       uint32_t network_order, const getter*) {
    record_universal_get(destination, context, 0, 4, static_cast<int32_t>(length), network_order);
}

TEST_F(NumberedElement, FieldsOfPluginsAreCutToo) {
    getter_add(&table_, "PLUGIN_NUMBER", 4, &plugin_number, is_plugin_number, record_length_4,
               get_plugin_number);
    EXPECT_EQ((bytes{0xB2, 0xC3, 0xD4}), record("id9.9/3=PLUGIN_NUMBER"));
    const export_template& only = init("id9.9/3=PLUGIN_NUMBER")->templates[0];
    EXPECT_EQ(only.required, getter_bitmap_from_record(only.getters, &flow_));
}

// ---- Room ----

TEST_F(NumberedElement, FieldsOfAnEnterpriseTakeEightBytesOfThePacket) {
    const auto load = [&](int by_enterprise, int by_number) {
        std::string text = "BEGIN-TEMPLATE\n";
        while (by_enterprise-- > 0)
            text += "id9.1/1=L4_PROTO\n";
        while (by_number-- > 0)
            text += "id1/1=L4_PROTO\n";
        template_exporter exporter = {.protocol = &ipfix_protocol};
        std::string path = write_file(text);
        exporter.template_file = path.data();
        load_templates(exporter, table_);
        keep(exporter.templates);
        return exporter.templates_length;
    };
    EXPECT_EQ(4u + 4 + 8 * 100 + 4 * 10, load(100, 10));
    // Of 1450 bytes 8 + 8 * 159 are for the template, 4 + 160 for a record of 159.
    EXPECT_EQ(8u + 8 * 159, load(159, 0));
    EXPECT_EXIT(load(160, 0), testing::ExitedWithCode(255),
                "^Templates too large for a packet: 1288 bytes of templates and a record of 160 "
                "bytes\n$");
}

TEST_F(NumberedElement, SetsBeyond16BitsAreRefused) {
    std::string definition;
    for (int field = 0; field < 8192; ++field)
        definition += "id9.1/1=L4_PROTO,";
    EXPECT_EXIT(init(definition), testing::ExitedWithCode(255),
                "^Templates too large: 65536 bytes, record 8191 bytes\n$");
}

// ---- Faults ----

TEST_F(NumberedElement, FaultsEndTheProgramWithTheField) {
    struct expectation {
        const char* definition;
        const char* message;
    };
    constexpr const char* number = " has wrong element number, not 1 to 32767\n$";
    constexpr const char* enterprise = " has wrong enterprise number, not 1 to 4294967295\n$";
    constexpr const char* length = " has wrong length, not 1 to 65534\n$";
    constexpr const char* format = " has invalid format\n$";
    for (const auto& [definition, message] :
         {expectation{"id0/4=BYTES", number}, expectation{"id32768/4=BYTES", number},
          expectation{"id99999999999999999999999/4=BYTES", number},
          expectation{"id9.0/4=BYTES", number}, expectation{"id0.9/4=BYTES", enterprise},
          expectation{"id4294967296.9/4=BYTES", enterprise}, expectation{"id9/0=BYTES", length},
          expectation{"id9/65535=BYTES", length},
          expectation{"id9/18446744073709551617=BYTES", length}, expectation{"id9=BYTES", format},
          expectation{"id9/=BYTES", format}, expectation{"id9/4x=BYTES", format},
          expectation{"id9/-4=BYTES", format}, expectation{"id9/4 =BYTES", format},
          expectation{"id9x/4=BYTES", format}, expectation{"id9./4=BYTES", format},
          expectation{"id9.1.1/4=BYTES", format}, expectation{"id9/4/4=BYTES", format}})
        EXPECT_EXIT(init(std::string("IN_PKTS=PACKETS,") + definition + ",TOS=L3_IPV4_TOS"),
                    testing::ExitedWithCode(255), std::string("^Field: ") + definition + message)
            << definition;
}

TEST_F(NumberedElement, NetflowV9KnowsNoEnterprise) {
    EXPECT_EXIT(init("id35632.57/4=BYTES", static_field_nf9), testing::ExitedWithCode(255),
                "^Field: id35632.57/4=BYTES has an enterprise number, which IPFIX alone knows\n$");
}

TEST_F(NumberedElement, WordsThatHaveNoNumberAreNames) {
    for (const char* name : {"id", "id/4", "identifier", "Id9/4", "i", "ID9/4", " id9/4", "id.9/4"})
        EXPECT_EXIT(init(std::string(name) + "=BYTES"), testing::ExitedWithCode(255),
                    std::string("^Bad field: ") + name + "\nAllowed fields are:\n$")
            << name;
}

TEST_F(NumberedElement, NamesOfATableComeFirst) {
    constexpr template_element own[] = {{"id9", 77, 2}, {nullptr, 0, 0}};
    EXPECT_EQ((bytes{0, 0, 0, 16, 1, 0, 0, 2, 0, 77, 0, 2, 0, 8, 0, 4}),
              template_set(init("id9/4=BYTES,id8/4=BYTES", own)));
}

TEST_F(NumberedElement, ValuesThatDoNotExistAreZeroWhereThatIsAllowed) {
    EXPECT_EQ("Fallback to ZERO getter for value: NONE\n", messages_of([&] {
                  EXPECT_EQ((bytes{0, 0, 0, 0, 0, 0}), record("id9/6=*NONE"));
              }));
}

}  // namespace
