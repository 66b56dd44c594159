// Sorts the validity tests of a getter table by what they look at, and lays the fields of all
// templates out as rows. Main thread, while the program starts; the per-record part is inline.
#include "export/template_plan.h"

#include "record/validity_rows.h"

namespace kestrel {
namespace {

// Sets the bit in the rows of those numbers for which the test holds.
void learn(std::span<uint64_t> table, const validity_row& test, uint64_t bit) {
    for (unsigned number = 0; number < table.size(); ++number)
        table[number] |= test.holds(number) ? bit : 0;
}

}  // namespace

record_validity::record_validity(const getter* table) {
    for (const getter* entry = table; entry && entry->name; ++entry) {
        const uint64_t bit = uint64_t{1} << (entry->index & 63);
        const validity_row* test = find_validity(entry->valid);
        if (!test) {
            foreign_.push_back({entry->valid, entry->context, bit});
            continue;
        }
        switch (test->number) {
            case looks_at::nothing:
            case looks_at::mac_block:  // settled before any export starts
                always_ |= entry->valid(entry->context, nullptr) ? bit : 0;
                break;
            case looks_at::l3_protocol:
                learn(by_l3_, *test, bit);
                break;
            case looks_at::l4_protocol:
                learn(by_l4_, *test, bit);
                break;
            case looks_at::vlan_count:
                learn(by_vlans_, *test, bit);
                break;
            case looks_at::mpls_count:
                learn(by_labels_, *test, bit);
                break;
        }
    }
}

}  // namespace kestrel

template_plan::template_plan(const template_collection& collection,
                             std::span<const uint32_t> enterprises)
    : validity(collection.getters) {
    for (int32_t i = 0; i < collection.count; ++i) {
        const export_template& definition = collection.templates[i];
        first_row.push_back(static_cast<uint32_t>(rows.size()));
        for (unsigned field = 0; field < definition.field_count; ++field) {
            const getter& entry = definition.getters[field];
            const uint32_t enterprise = enterprises[rows.size()];
            rows.push_back(
                {entry.get, entry.context, &entry, definition.elements[field]->length, enterprise});
        }
    }
    first_row.push_back(static_cast<uint32_t>(rows.size()));
}

uint32_t template_plan::set_length(int32_t count) const {
    const auto templates = static_cast<size_t>(count);
    uint32_t length = 4 + 4 * static_cast<uint32_t>(count);
    for (const kestrel::template_field& row : std::span(rows).first(first_row[templates]))
        length += kestrel::field_specifier_size(row.enterprise);
    return length;
}
