// What is worked out about a template collection before its first record, so that choosing a
// template and filling its fields are short. Built while the program starts, read-only afterwards.
// The results are exactly those of the plain walks over the getter tables.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "base/wire.h"
#include "kestrelexp/template.h"

namespace kestrel {

// Answers getter_bitmap_from_record without a call for each getter. The validity tests of the base
// vocabulary look at four things of a record only; the bits that each value of those stands for are
// looked up. Tests that are not ours are called, each one for each record.
// Cost: two cache lines of tables beside the record's own, no branch but on the optional blocks.
class record_validity {
  public:
    explicit record_validity(const getter* table);

    uint64_t bits(const flow_record* record) const {
        uint64_t valid = always_ | by_l3_[record->l3protocol] | by_l4_[record->l4protocol];
        if (kestrel_vlan_offset != 0)
            valid |= by_vlans_[count_at<VLAN_BLOCK_IDS>(record, vlan_count_offset())];
        if (kestrel_mpls_offset != 0)
            valid |= by_labels_[count_at<MPLS_BLOCK_ENTRIES>(record, mpls_count_offset())];
        for (const foreign_test& test : foreign_)
            valid |= test.valid(test.context, record) ? test.bit : 0;
        return valid;
    }

  private:
    struct foreign_test {
        getter_valid_function* valid;
        void* context;
        uint64_t bit;
    };

    static uint64_t vlan_count_offset() {
        return kestrel_vlan_offset + offsetof(vlan_block, count);
    }
    static uint64_t mpls_count_offset() {
        return kestrel_mpls_offset + offsetof(mpls_block, count);
    }
    template <size_t limit>
    static size_t count_at(const flow_record* record, uint64_t offset) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(record);
        return std::min(size_t{load_native<uint16_t>(bytes + offset)}, limit);
    }

    uint64_t always_ = 0;
    std::array<uint64_t, 256> by_l3_ = {};
    std::array<uint64_t, 256> by_l4_ = {};
    std::array<uint64_t, VLAN_BLOCK_IDS + 1> by_vlans_ = {};       // index: number of tags
    std::array<uint64_t, MPLS_BLOCK_ENTRIES + 1> by_labels_ = {};  // index: number of labels
    std::vector<foreign_test> foreign_;
};

// One field of a template: whom to ask, and for how many bytes.
struct template_field {
    getter_get_function* get;
    void* context;
    const getter* self;
    uint32_t length;
    uint32_t enterprise;  // whose number the element's is; 0: one of IANA's
};
static_assert(sizeof(template_field) == 32);  // half a cache line

// Bytes of a field in a template set (RFC 7011 section 3.2).
constexpr uint32_t field_specifier_size(uint32_t enterprise) {
    return enterprise != 0 ? 8 : 4;
}

}  // namespace kestrel

struct template_plan {
    // enterprises: of each field of all templates, in their order.
    template_plan(const template_collection& collection, std::span<const uint32_t> enterprises);

    std::span<const kestrel::template_field> rows_of(int32_t index) const {
        const auto at = static_cast<size_t>(index);
        return std::span(rows).subspan(first_row[at], first_row[at + 1] - first_row[at]);
    }

    // Bytes of a set of the first count templates.
    uint32_t set_length(int32_t count) const;

    kestrel::record_validity validity;
    std::vector<kestrel::template_field> rows;  // of all templates, in their order
    std::vector<uint32_t> first_row;            // of each template, and the end
};
