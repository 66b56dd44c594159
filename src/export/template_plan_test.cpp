// Not under the thread sanitizer: it is all one thread.
#include "export/template_plan.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tests/support/lifelong.h"

namespace {

using namespace kestrel;
using kestrel_test::keep;

constexpr uint64_t vlan_at = sizeof(flow_record);
constexpr uint64_t mpls_at = vlan_at + sizeof(vlan_block);
constexpr uint64_t mac_at = mpls_at + sizeof(mpls_block);

struct whole_record {
    flow_record base;
    vlan_block vlan;
    mpls_block mpls;
    mac_block mac;
};
static_assert(sizeof(whole_record) >= mac_at + sizeof(mac_block));

int is_odd_port(void*, const flow_record* record) {
    return record->srcport & 1;
}
int is_port(void* context, const flow_record* record) {
    return record->srcport == *static_cast<uint16_t*>(context) ? -1 : 0;
}

getter_valid_function* const tests[] = {
    record_valid_ok, record_ipv4_ok,  record_ipv6_ok,  record_icmp_ok,  record_tcp_ok,
    record_ports_ok, record_mac_ok,   record_vlan0_ok, record_vlan1_ok, record_vlan2_ok,
    record_vlan3_ok, record_mpls0_ok, record_mpls1_ok, record_mpls2_ok, record_mpls3_ok,
    record_mpls4_ok, record_mpls5_ok, record_mpls6_ok, record_mpls7_ok, record_mpls8_ok,
    record_mpls9_ok, is_odd_port,     is_port};

class TemplatePlan : public testing::Test {
  protected:
    void TearDown() override { kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0; }

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    template <size_t count, typename T>
    T one_of(const T (&values)[count]) {
        return values[below(count)];
    }

    void draw_blocks() {
        kestrel_vlan_offset = below(3) ? vlan_at : 0;
        kestrel_mpls_offset = below(3) ? mpls_at : 0;
        kestrel_mac_offset = below(2) ? mac_at : 0;
    }

    // Any tests in any order, with indices that may meet in one bit.
    std::vector<getter> draw_table() {
        std::vector<getter> table;
        for (uint32_t i = below(70); i > 0; --i)
            table.push_back({below(100), "X", 4, &port_, one_of(tests), record_length_4, nullptr});
        table.push_back({0, nullptr, 0xFFFFFFFF, nullptr, nullptr, nullptr, nullptr});
        return table;
    }

    whole_record draw_record() {
        constexpr uint8_t l3[] = {4, 6, 4, 6, 0, 5, 255};
        constexpr uint8_t l4[] = {1, 6, 17, 58, 132, 6, 17, 0, 47, 255, 2, 7};
        whole_record record = {};
        record.base.l3protocol = below(10) ? one_of(l3) : static_cast<uint8_t>(below(256));
        record.base.l4protocol = below(10) ? one_of(l4) : static_cast<uint8_t>(below(256));
        record.base.srcport = static_cast<uint16_t>(below(8));
        record.vlan.count = static_cast<uint16_t>(below(50) ? below(6) : below(65536));
        record.mpls.count = static_cast<uint16_t>(below(50) ? below(12) : below(65536));
        return record;
    }

    std::mt19937_64 random_{20240607};
    uint16_t port_ = 3;
};

TEST_F(TemplatePlan, ValidBitsAreThoseOfThePlainWalk) {
    for (int tables = 0; tables < 1000; ++tables) {
        draw_blocks();
        const std::vector<getter> table = draw_table();
        const record_validity validity(table.data());
        for (int records = 0; records < 100; ++records) {
            const whole_record record = draw_record();
            ASSERT_EQ(getter_bitmap_from_record(table.data(), &record.base),
                      validity.bits(&record.base));
        }
    }
}

TEST_F(TemplatePlan, MissingTableHasNoBits) {
    const whole_record record = draw_record();
    EXPECT_EQ(0u, record_validity(nullptr).bits(&record.base));
}

// The same choice as by asking every getter and trying every template.
int32_t plain_choice(const template_collection& from, const flow_record* record) {
    const uint64_t valid = getter_bitmap_from_record(from.getters, record);
    for (int32_t i = 0; i < from.count; ++i)
        if ((from.templates[i].required & valid) == from.templates[i].required)
            return i;
    return -1;
}

TEST_F(TemplatePlan, ChoiceIsThatOfThePlainWalk) {
    for (int collections = 0; collections < 500; ++collections) {
        draw_blocks();
        getter* table = getter_base_init();
        getter_add(&table, "FOREIGN", 2, &port_, is_port, record_length_2, record_get_srcport);
        const uint32_t getters =
            static_cast<uint32_t>(std::popcount(getter_bitmap_from_list(table)));
        std::vector<std::string> texts(1 + below(12));
        std::vector<char*> definitions;
        for (std::string& text : texts) {
            for (uint32_t fields = 1 + below(6); fields > 0; --fields)
                text += std::string("FLOWS=") + table[below(getters)].name + ",";
            definitions.push_back(text.data());
        }
        definitions.push_back(nullptr);
        const template_collection* made =
            exporter_template_init(definitions.data(), static_field_ipfix, table);
        keep(table);
        keep(made);
        for (int records = 0; records < 200; ++records) {
            const whole_record record = draw_record();
            const int32_t expected = plain_choice(*made, &record.base);
            int32_t index = 77;
            const uint32_t length = exporter_template_find(made, &record.base, &index);
            ASSERT_EQ(expected, index);
            ASSERT_EQ(expected < 0 ? 0u : made->templates[expected].field_count * 4u, length);
        }
    }
}

int calls = 0;
int count_calls(void*, const flow_record*) {
    return ++calls & 1;
}

TEST_F(TemplatePlan, ForeignTestsAreCalledForEachRecord) {
    const getter table[] = {{2, "A", 4, nullptr, record_valid_ok, record_length_4, nullptr},
                            {5, "B", 4, nullptr, count_calls, record_length_4, nullptr},
                            {0, nullptr, 0xFFFFFFFF, nullptr, nullptr, nullptr, nullptr}};
    const record_validity validity(table);
    const whole_record record = draw_record();
    EXPECT_EQ(0x24u, validity.bits(&record.base));
    EXPECT_EQ(0x04u, validity.bits(&record.base));
    EXPECT_EQ(2, calls);
}

TEST_F(TemplatePlan, EveryTestOfTheBaseTableIsLookedUp) {
    kestrel_vlan_offset = vlan_at;
    kestrel_mpls_offset = mpls_at;
    kestrel_mac_offset = mac_at;
    getter* table = getter_base_init();
    whole_record record = {};
    record.base.l3protocol = 4;
    record.base.l4protocol = 6;
    record.vlan.count = 2;
    record.mpls.count = 1;
    const uint64_t bits = record_validity(table).bits(&record.base);
    std::string missing;
    for (const getter* entry = table; entry->name; ++entry)
        if (!(bits >> entry->index & 1))
            missing += std::string(entry->name) + " ";
    EXPECT_EQ(
        "L2_VLAN_2 L2_VLAN_3 L3_IPV6_ADDR_SRC L3_IPV6_ADDR_DST L4_ICMP_TYPE_CODE L2_MPLS_1 "
        "L2_MPLS_2 L2_MPLS_3 L2_MPLS_4 L2_MPLS_5 L2_MPLS_6 L2_MPLS_7 L2_MPLS_8 L2_MPLS_9 ",
        missing);
    std::free(table);
}

}  // namespace
