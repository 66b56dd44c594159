// Whole records as JSON, with literal expectations.
#include <gtest/gtest.h>
#include <kestrelexp/getter.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "../../tests/support/lifelong.h"
#include "flow_encoding.h"

namespace {

using flow_encoding::json_encoder;
using flow_encoding::json_settings;

constexpr uint64_t start_ns = 1'600'000'000'123'456'789;  // 2020-09-13T12:26:40
constexpr uint64_t end_ns = start_ns + 2'500'000'000;
constexpr uint64_t now_ns = start_ns + 7'000'000'000;

constexpr uint16_t vlan_offset = 88;
constexpr uint16_t mpls_offset = vlan_offset + sizeof(vlan_block);
constexpr uint16_t mac_offset = mpls_offset + sizeof(mpls_block);
constexpr uint16_t plugin_offset = mac_offset + sizeof(mac_block);

// A record with all blocks and an area of a plugin's.
struct full_record {
    flow_record base;
    uint8_t space[plugin_offset - vlan_offset + 64];
};

full_record tcp_record() {
    full_record record{};
    flow_record& base = record.base;
    base.start = start_ns;
    base.end = end_ns;
    base.packets = 12;
    base.bytes = 3456;
    base.inputsnmp = 3;
    base.outputsnmp = 4;
    base.ipv4 = {0xC0000201, 0xC6336407, 0x20};
    base.l3protocol = 4;
    base.l4protocol = 6;
    base.srcport = 40000;
    base.dstport = 443;
    base.tcpflags = 0x1B;
    return record;
}

full_record icmp6_record() {
    full_record record = tcp_record();
    flow_record& base = record.base;
    base.ipv6 = {};
    base.ipv6.srcipv6[0] = base.ipv6.dstipv6[0] = 1;
    base.ipv6.srcipv6[15] = 0xFE;
    base.ipv6.srcipv6[14] = 0x80;
    base.ipv6.dstipv6[15] = 0xFF;
    base.ipv6.dstipv6[14] = 0x02;
    base.l3protocol = 6;
    base.l4protocol = 58;
    base.icmptypecode = 133 << 8 | 7;
    base.sampling = 100;
    return record;
}

// Tables of getters as programs with and without blocks have them.
class JsonEncoder : public testing::Test {
  protected:
    ~JsonEncoder() override {
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
        std::free(getters_);
    }

    getter*& base_table() {
        getters_ = getter_base_init();
        return getters_;
    }

    getter*& full_table() {
        kestrel_vlan_offset = vlan_offset;
        kestrel_mpls_offset = mpls_offset;
        kestrel_mac_offset = mac_offset;
        return base_table();
    }

    // Encoders live as long as the program. Null: there is a fault.
    static json_encoder* open(const json_settings& settings, const getter* table,
                              std::string& fault) {
        return kestrel_test::keep(json_encoder::open(settings, table, fault));
    }

    static std::string written(json_encoder& encoder, const full_record& record) {
        std::string line(encoder.longest(), '?');
        const size_t length = encoder.encode(record.base, now_ns, line.data());
        EXPECT_LE(length, line.size());
        line.resize(length);
        return line;
    }

    static std::string written(const json_settings& settings, const getter* table,
                               const full_record& record) {
        std::string fault;
        json_encoder* const encoder = open(settings, table, fault);
        EXPECT_NE(encoder, nullptr) << fault;
        return encoder != nullptr ? written(*encoder, record) : "";
    }

  private:
    getter* getters_ = nullptr;
};

json_settings in_style(field_style style, const char* fields = "") {
    return {style, fields, {}, "192.0.2.9"};
}

TEST_F(JsonEncoder, Goflow2HasAllMembersOfItsMessage) {
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2), base_table(), tcp_record()),
              R"({"time_received_ns":1600000007123456789,"type":"FLOWUNKNOWN","sequence_num":0,)"
              R"("sampler_address":"192.0.2.9","bytes":3456,"packets":12,)"
              R"("time_flow_start_ns":1600000000123456789,)"
              R"("time_flow_end_ns":1600000002623456789,"sampling_rate":1,"in_if":3,"out_if":4,)"
              R"("etype":"IPv4","src_addr":"192.0.2.1","dst_addr":"198.51.100.7","ip_tos":32,)"
              R"("proto":"TCP","tcp_flags":27,"src_port":40000,"dst_port":443,"icmp_type":0,)"
              R"("icmp_code":0})");
}

TEST_F(JsonEncoder, Goflow2HasZerosForWhatAFlowDoesNotHave) {
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2,
                               "L3_PROTO#L3_IPV4_ADDR_SRC#L3_IPV6_ADDR_SRC#L3_IPV4_TOS#L4_PROTO#"
                               "L4_TCP_FLAGS#L4_PORT_SRC#L4_ICMP_TYPE_CODE#SAMPLING_RATE"),
                      base_table(), icmp6_record()),
              R"({"etype":"IPv6","src_addr":"fe80::1","ip_tos":0,"proto":"IPv6-ICMP",)"
              R"("tcp_flags":0,"src_port":0,"icmp_type":133,"icmp_code":7,"sampling_rate":100})");
}

TEST_F(JsonEncoder, EcsIsNestedAndHasWhatAFlowHas) {
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS), base_table(), tcp_record()),
              R"({"@timestamp":"2020-09-13T12:26:47.123456789Z",)"
              R"("event":{"sequence":0,"duration":2500000000,"kind":"event",)"
              R"("category":["network"],"type":["connection"],)"
              R"("start":"2020-09-13T12:26:40.123456789Z","end":"2020-09-13T12:26:42.623456789Z"},)"
              R"("observer":{"ip":"192.0.2.9","ingress":{"interface":{"id":"3"}},)"
              R"("egress":{"interface":{"id":"4"}}},)"
              R"("network":{"community_id":"1:lWOTJwBjzASkHgo+w0kukpG9z0M=","bytes":3456,)"
              R"("packets":12,"type":"ipv4","transport":"tcp","iana_number":"6"},)"
              R"("ecs":{"version":"8.11.0"},)"
              R"("kestrelexp":{"sampling_rate":1,"ip_tos":32,"tcp_flags":27},)"
              R"("source":{"ip":"192.0.2.1","port":40000},)"
              R"("destination":{"ip":"198.51.100.7","port":443}})");
}

TEST_F(JsonEncoder, EcsLeavesOutObjectsWithoutMembers) {
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS, "L4_PORT_SRC#L4_PORT_DST#L4_PROTO"), base_table(),
                      icmp6_record()),
              R"({"network":{"transport":"ipv6-icmp","iana_number":"58"}})");
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS, "L4_PORT_SRC"), base_table(), icmp6_record()),
              "{}");
}

TEST_F(JsonEncoder, EcsHasNoNameForANumberWithoutProtocol) {
    full_record record = icmp6_record();
    record.base.l4protocol = 200;
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS, "L4_PROTO"), base_table(), record),
              R"({"network":{"iana_number":"200"}})");
}

TEST_F(JsonEncoder, FieldsAreChosenAndOrdered) {
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2, "PACKETS#BYTES#FLOW_START_SEC#ZERO"),
                      base_table(), tcp_record()),
              R"({"packets":12,"bytes":3456,"FLOW_START_SEC":1600000000,"ZERO":0})");
}

// Members of one object stand in one place, whatever the order of the fields.
TEST_F(JsonEncoder, NoNameComesTwice) {
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS,
                               "L4_PORT_SRC#L4_PORT_DST#L3_IPV4_ADDR_SRC#L3_IPV4_ADDR_DST#"
                               "L4_PORT_SRC#FLOW_START_SEC"),
                      base_table(), tcp_record()),
              R"({"source":{"port":40000,"ip":"192.0.2.1"},)"
              R"("destination":{"port":443,"ip":"198.51.100.7"},)"
              R"("kestrelexp":{"FLOW_START_SEC":1600000000}})");
}

TEST_F(JsonEncoder, AnUnknownFieldIsNamed) {
    std::string fault;
    EXPECT_EQ(open(in_style(FIELD_STYLE_ECS, "BYTES#BYTE#X"), base_table(), fault), nullptr);
    EXPECT_EQ(fault, "there is no field BYTE");
}

TEST_F(JsonEncoder, RecordsAreNumbered) {
    std::string fault;
    json_encoder* const encoder =
        open(in_style(FIELD_STYLE_GOFLOW2, "SEQUENCE_NUMBER"), base_table(), fault);
    EXPECT_EQ(written(*encoder, tcp_record()), R"({"sequence_num":0})");
    EXPECT_EQ(written(*encoder, icmp6_record()), R"({"sequence_num":1})");
}

TEST_F(JsonEncoder, Goflow2HasTheCommunityIdWhenAsked) {
    json_settings settings = in_style(FIELD_STYLE_GOFLOW2);
    constexpr const char* member = R"("community_id":"1:lWOTJwBjzASkHgo+w0kukpG9z0M=",)";
    EXPECT_EQ(written(settings, base_table(), tcp_record()).find("community"), std::string::npos);
    settings.seed = 0;
    EXPECT_NE(written(settings, base_table(), tcp_record()).find(member), std::string::npos);
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2, "COMMUNITY_ID"), base_table(), tcp_record()),
              R"({"community_id":"1:lWOTJwBjzASkHgo+w0kukpG9z0M="})");
}

TEST_F(JsonEncoder, TheSeedIsPartOfTheCommunityId) {
    json_settings settings = in_style(FIELD_STYLE_ECS, "COMMUNITY_ID");
    settings.seed = 1;
    EXPECT_EQ(written(settings, base_table(), tcp_record()),
              R"({"network":{"community_id":"1:xHRYZZfbeDZtxkS21VErKLbJvW4="}})");
}

void fill_blocks(full_record& record) {
    uint8_t* const whole = reinterpret_cast<uint8_t*>(&record);
    const vlan_block tags = {{100, 200, 0, 0}, 2};
    const mpls_block labels = {{16 << 4 | 3 << 1, 1'048'575 << 4 | 1}, 2, 0};
    const mac_block addresses = {{2, 0, 0x5E, 0x10, 0, 0xFF}, {0xA, 0xB, 0xC, 0xD, 0xE, 0xF}};
    std::memcpy(whole + vlan_offset, &tags, sizeof tags);
    std::memcpy(whole + mpls_offset, &labels, sizeof labels);
    std::memcpy(whole + mac_offset, &addresses, sizeof addresses);
}

constexpr const char* fields_of_blocks =
    "L2_VLAN_0#L2_VLAN_1#L2_VLAN_2#L2_SRC_MAC#L2_DST_MAC#L2_MPLS_0#L2_MPLS_1#L2_MPLS_2";

TEST_F(JsonEncoder, Goflow2HasTagsLabelsAndMacAddresses) {
    full_record record = tcp_record();
    getter* const table = full_table();
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2, fields_of_blocks), table, record),
              R"({"vlan_id":0,"src_vlan":0,"L2_VLAN_1":0,"L2_VLAN_2":0,)"
              R"("src_mac":"00:00:00:00:00:00","dst_mac":"00:00:00:00:00:00","mpls_label":[]})");
    fill_blocks(record);
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2, fields_of_blocks), table, record),
              R"({"vlan_id":100,"src_vlan":100,"L2_VLAN_1":200,"L2_VLAN_2":0,)"
              R"("src_mac":"02:00:5e:10:00:ff","dst_mac":"0a:0b:0c:0d:0e:0f",)"
              R"("mpls_label":[16,1048575]})");
}

TEST_F(JsonEncoder, EcsHasTagsLabelsAndMacAddresses) {
    full_record record = tcp_record();
    getter* const table = full_table();
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS, "L2_VLAN_0#L2_VLAN_1#L2_MPLS_0"), table, record),
              "{}");
    fill_blocks(record);
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS, fields_of_blocks), table, record),
              R"({"network":{"vlan":{"id":"100"},"inner":{"vlan":{"id":"200"}}},)"
              R"("kestrelexp":{"mpls_label":[16,1048575]},"source":{"mac":"02-00-5E-10-00-FF"},)"
              R"("destination":{"mac":"0A-0B-0C-0D-0E-0F"}})");
}

// ---- Fields of plugins ----

uint32_t length_of_a_text() {
    return 24;
}

template <int32_t length>
void get_area(void*, const flow_record* record, void* destination, uint32_t wanted,
              uint32_t network_order, const getter*) {
    record_universal_get(destination, record, plugin_offset, length, static_cast<int32_t>(wanted),
                         network_order);
}

class PluginFields : public JsonEncoder {
  protected:
    getter* table_with_fields() {
        getter*& table = full_table();
        getter_add(&table, "HOST \"NAME\"", 24, nullptr, record_valid_ok, length_of_a_text,
                   get_area<24>);
        getter_add(&table, "COUNT", 8, nullptr, record_valid_ok, record_length_8, get_area<8>);
        getter_add(&table, "STATION", 6, nullptr, record_ports_ok, record_length_6, get_area<6>);
        return table;
    }

    static full_record with_area(const void* bytes, size_t length) {
        full_record record = tcp_record();
        std::memcpy(reinterpret_cast<uint8_t*>(&record) + plugin_offset, bytes, length);
        return record;
    }
};

TEST_F(PluginFields, HaveTheirOwnNamesAndTheFormsOfTheirLengths) {
    getter* const table = table_with_fields();
    const full_record record = with_area("\1\2\3\4\5\6\7\x7F\0", 9);
    constexpr const char* fields = "COUNT#STATION#HOST \"NAME\"";
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2, fields), table, record),
              R"({"COUNT":9153291386265731585,"STATION":"01:02:03:04:05:06",)"
              "\"HOST \\\"NAME\\\"\":"
              "\"\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\x7F\"}");
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS, "STATION"), table, record),
              R"({"kestrelexp":{"STATION":"01:02:03:04:05:06"}})");
}

TEST_F(PluginFields, HaveNamesOfAnyLength) {
    getter*& table = base_table();
    const std::string always(29, 'A'), ports(30, 'P'), tcp(93, 'T');
    getter_add(&table, always.c_str(), 1, nullptr, record_valid_ok, record_length_1, get_area<1>);
    getter_add(&table, ports.c_str(), 1, nullptr, record_ports_ok, record_length_1, get_area<1>);
    getter_add(&table, tcp.c_str(), 1, nullptr, record_tcp_ok, record_length_1, get_area<1>);
    const std::string fields = ports + '#' + tcp + '#' + always;
    const json_settings flat = in_style(FIELD_STYLE_GOFLOW2, fields.c_str());
    const auto line = [&](const char* port_value, const char* tcp_value, const char* value) {
        return "{\"" + ports + "\":" + port_value + ",\"" + tcp + "\":" + tcp_value + ",\"" +
               always + "\":" + value + '}';
    };
    full_record record = with_area("\7", 1);
    EXPECT_EQ(written(flat, table, record), line("7", "7", "7"));
    record.base.l4protocol = 17;
    EXPECT_EQ(written(flat, table, record), line("7", "0", "7"));
    EXPECT_EQ(written(flat, table, icmp6_record()), line("0", "0", "0"));
    EXPECT_EQ(written(in_style(FIELD_STYLE_ECS, fields.c_str()), table, record),
              "{\"kestrelexp\":{\"" + ports + "\":7,\"" + always + "\":7}}");
}

TEST_F(PluginFields, AreThereByThemselves) {
    getter* const table = table_with_fields();
    const std::string line =
        written(in_style(FIELD_STYLE_ECS), table, with_area("kestrel.example\0", 16));
    EXPECT_NE(line.find(R"("HOST \"NAME\"":"kestrel.example")"), std::string::npos) << line;
    EXPECT_EQ(line.find("FLOW_START_SEC"), std::string::npos) << line;
}

TEST_F(PluginFields, ATextWithoutEndEndsWithItsField) {
    getter* const table = table_with_fields();
    const std::string whole(32, 'x');
    EXPECT_EQ(written(in_style(FIELD_STYLE_GOFLOW2, "HOST \"NAME\""), table,
                      with_area(whole.data(), whole.size())),
              "{\"HOST \\\"NAME\\\"\":\"" + std::string(24, 'x') + "\"}");
}

// Whatever bytes a record has, the line is as long as was said at most, ends, and holds no bytes
// that a line must not have.
TEST_F(PluginFields, AnyBytesMakeALine) {
    getter* const table = table_with_fields();
    std::minstd_rand random(7);
    for (const field_style style : {FIELD_STYLE_GOFLOW2, FIELD_STYLE_ECS}) {
        std::string fault;
        json_encoder* const encoder = open(in_style(style), table, fault);
        ASSERT_NE(encoder, nullptr) << fault;
        for (int round = 0; round < 2000; ++round) {
            full_record record{};
            auto* const bytes = reinterpret_cast<uint8_t*>(&record);
            for (size_t n = 0; n < sizeof record; ++n)
                bytes[n] = static_cast<uint8_t>(random());
            if (round % 2 == 0)
                record.base.l3protocol = round % 4 == 0 ? 4 : 6;
            const std::string line = written(*encoder, record);
            ASSERT_EQ(line.front(), '{');
            ASSERT_EQ(line.back(), '}');
            for (const char byte : line)
                ASSERT_GE(static_cast<uint8_t>(byte), 0x20) << line;
        }
    }
}

}  // namespace
