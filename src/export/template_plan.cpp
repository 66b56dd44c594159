// Sorts the validity tests of a getter table by what they look at, and lays the fields of all
// templates out as rows. Main thread, while the program starts; the per-record part is inline.
#include "export/template_plan.h"

#include <iterator>

namespace kestrel {
namespace {

enum class looks_at { nothing, l3_protocol, l4_protocol, vlan_count, mpls_count };

struct base_test {
    getter_valid_function* valid;
    looks_at field;
    unsigned more_than;  // for the counts
};

// The MAC test looks at no record, only at an offset that is settled before any export starts.
constexpr base_test base_tests[] = {
    {record_valid_ok, looks_at::nothing, 0},     {record_mac_ok, looks_at::nothing, 0},
    {record_ipv4_ok, looks_at::l3_protocol, 0},  {record_ipv6_ok, looks_at::l3_protocol, 0},
    {record_icmp_ok, looks_at::l4_protocol, 0},  {record_tcp_ok, looks_at::l4_protocol, 0},
    {record_ports_ok, looks_at::l4_protocol, 0}, {record_vlan0_ok, looks_at::vlan_count, 0},
    {record_vlan1_ok, looks_at::vlan_count, 1},  {record_vlan2_ok, looks_at::vlan_count, 2},
    {record_vlan3_ok, looks_at::vlan_count, 3},  {record_mpls0_ok, looks_at::mpls_count, 0},
    {record_mpls1_ok, looks_at::mpls_count, 1},  {record_mpls2_ok, looks_at::mpls_count, 2},
    {record_mpls3_ok, looks_at::mpls_count, 3},  {record_mpls4_ok, looks_at::mpls_count, 4},
    {record_mpls5_ok, looks_at::mpls_count, 5},  {record_mpls6_ok, looks_at::mpls_count, 6},
    {record_mpls7_ok, looks_at::mpls_count, 7},  {record_mpls8_ok, looks_at::mpls_count, 8},
    {record_mpls9_ok, looks_at::mpls_count, 9},
};

const base_test* find_base_test(getter_valid_function* valid) {
    const auto* row = std::find_if(std::begin(base_tests), std::end(base_tests),
                                   [valid](const base_test& test) { return test.valid == valid; });
    return row == std::end(base_tests) ? nullptr : row;
}

// Asks the test itself about every value of a one-byte field.
void learn(std::span<uint64_t, 256> table, const getter& entry, uint64_t bit,
           uint8_t flow_record::*field) {
    flow_record record = {};
    for (size_t value = 0; value < table.size(); ++value) {
        record.*field = static_cast<uint8_t>(value);
        if (entry.valid(entry.context, &record))
            table[value] |= bit;
    }
}

void learn_count(std::span<uint64_t> table, unsigned more_than, uint64_t bit) {
    for (size_t count = more_than + 1; count < table.size(); ++count)
        table[count] |= bit;
}

}  // namespace

record_validity::record_validity(const getter* table) {
    for (const getter* entry = table; entry && entry->name; ++entry) {
        const uint64_t bit = uint64_t{1} << (entry->index & 63);
        const base_test* test = find_base_test(entry->valid);
        if (!test) {
            foreign_.push_back({entry->valid, entry->context, bit});
            continue;
        }
        switch (test->field) {
            case looks_at::nothing:
                always_ |= entry->valid(entry->context, nullptr) ? bit : 0;
                break;
            case looks_at::l3_protocol:
                learn(by_l3_, *entry, bit, &flow_record::l3protocol);
                break;
            case looks_at::l4_protocol:
                learn(by_l4_, *entry, bit, &flow_record::l4protocol);
                break;
            case looks_at::vlan_count:
                learn_count(by_vlans_, test->more_than, bit);
                break;
            case looks_at::mpls_count:
                learn_count(by_labels_, test->more_than, bit);
                break;
        }
    }
}

}  // namespace kestrel

template_plan::template_plan(const template_collection& collection) : validity(collection.getters) {
    for (int32_t i = 0; i < collection.count; ++i) {
        const export_template& from = collection.templates[i];
        first_row.push_back(static_cast<uint32_t>(rows.size()));
        for (unsigned field = 0; field < from.field_count; ++field) {
            const getter& entry = from.getters[field];
            rows.push_back({entry.get, entry.context, &entry, from.elements[field]->length});
        }
    }
    first_row.push_back(static_cast<uint32_t>(rows.size()));
}
