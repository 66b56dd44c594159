// The record in a ring slot, for code that reads or fills it as a flow_record.
//
// Slots lie at exactly the slot size. With a data space that is no multiple of 8 bytes, most of
// them are not aligned as a record has to be: those go through a copy, all others are used in
// place.
//
// Cost in place: one test of the address, which the branch predictor knows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/memory.h"
#include "kestrelexp/record.h"

namespace kestrel {

// One for each side of a ring: the copy serves one slot at a time.
class slot_record {
  public:
    // record_size: bytes of base part and data space. Its memory is never freed: engine threads
    // live as long as the process.
    explicit slot_record(size_t record_size)
        : copy_(static_cast<flow_record*>(malloc_wrapper(record_size, 1))), size_(record_size) {}

    // The record of a filled slot. What the caller changes in it may not reach the slot.
    flow_record& in(void* slot) const {
        if (is_aligned(slot)) [[likely]]
            return *static_cast<flow_record*>(slot);
        std::memcpy(static_cast<void*>(copy_), slot, size_);
        return *copy_;
    }

    // Where to fill the record of an empty slot; store() puts it there.
    flow_record& empty(void* slot) const {
        return is_aligned(slot) ? *static_cast<flow_record*>(slot) : *copy_;
    }
    void store(void* slot) const {
        if (!is_aligned(slot)) [[unlikely]]
            std::memcpy(slot, static_cast<const void*>(copy_), size_);
    }

  private:
    static bool is_aligned(const void* slot) {
        return (reinterpret_cast<uintptr_t>(slot) & (alignof(flow_record) - 1)) == 0;
    }

    flow_record* copy_;
    size_t size_;
};

}  // namespace kestrel
