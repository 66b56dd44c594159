// The data space of flow records: where the optional blocks lie, and how a record is made ready for
// the parser. The base layout is in kestrelexp/record.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kestrelexp/record.h"

namespace kestrel {

// Records lie in arrays and rings at a stride that keeps their 64-bit fields aligned, whatever the
// size of the data space.
constexpr size_t record_stride(size_t slot_size) {
    return (slot_size + 7) & ~size_t{7};
}

// A block of the record, or null when it is absent (offset 0).
template <typename Block, typename Record>
inline auto block_at(Record& record, uint64_t offset) {
    using pointer = std::conditional_t<std::is_const_v<Record>, const Block*, Block*>;
    using bytes = std::conditional_t<std::is_const_v<Record>, const uint8_t*, uint8_t*>;
    return offset ? reinterpret_cast<pointer>(reinterpret_cast<bytes>(&record) + offset) : nullptr;
}

// Sets what a parser or an input plugin may rely on: one packet, nothing known of it yet.
inline void prepare_record(flow_record& record) {
    record.tcpflags = 0;
    record.l3protocol = 0;
    record.l4protocol = 0;
    record.bytes = 0;
    record.packets = 1;
    record.export_flag = 0;
    if (auto* vlan = block_at<vlan_block>(record, kestrel_vlan_offset))
        vlan->count = 0;
    if (auto* mpls = block_at<mpls_block>(record, kestrel_mpls_offset))
        mpls->count = 0;
}

// Prepares a slot that is used again and again. A fragment of ICMP has no type and code: that of
// the packet before it in the slot would be a false one.
inline void prepare_slot(flow_record& record) {
    prepare_record(record);
    record.icmptypecode = 0;
}

}  // namespace kestrel
