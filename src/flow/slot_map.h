// Which slots of the flow cache hold a flow, in little memory: a bit a slot, and the number of
// flows in each block of slots. A scan of the cache looks there, and leaves the slots that are
// empty alone. Guarded by the cache's lock.
#pragma once

#include <bit>
#include <cstdint>

#include "kestrelexp/service.h"

namespace kestrel {

inline constexpr uint32_t block_slots = 1024;

class slot_map {
  public:
    slot_map() = default;
    // For the whole run; never freed.
    explicit slot_map(uint32_t slots)
        : bits_(array<uint64_t>((slots + word_slots - 1) / word_slots)),
          block_flows_(array<uint16_t>((slots + block_slots - 1) / block_slots)) {}

    bool holds_flow(uint32_t slot) const {
        return (bits_[slot / word_slots] >> slot % word_slots & 1) != 0;
    }
    // Whether no slot of the one's block holds a flow.
    bool is_block_empty(uint32_t slot) const { return block_flows_[slot / block_slots] == 0; }

    // The last slot up to the given one that holds a flow; -1: none does.
    int32_t last_flow(int32_t slot) const {
        while (slot >= 0) {
            const auto place = static_cast<uint32_t>(slot);
            const uint64_t flows = bits_[place / word_slots]
                                   << (word_slots - 1 - place % word_slots);
            if (flows != 0)
                return slot - std::countl_zero(flows);
            const uint32_t skipped = is_block_empty(place) ? block_slots : word_slots;
            slot = static_cast<int32_t>(place / skipped * skipped) - 1;
        }
        return -1;
    }

    // The slot held no flow.
    void add(uint32_t slot) {
        bits_[slot / word_slots] |= uint64_t{1} << slot % word_slots;
        block_flows_[slot / block_slots] += 1;
    }
    // The slot held a flow.
    void remove(uint32_t slot) {
        bits_[slot / word_slots] &= ~(uint64_t{1} << slot % word_slots);
        block_flows_[slot / block_slots] -= 1;
    }

  private:
    static constexpr uint32_t word_slots = 64;

    template <typename T>
    static T* array(uint32_t count) {
        return static_cast<T*>(malloc_wrapper(count * sizeof(T), 1));
    }

    uint64_t* bits_ = nullptr;
    uint16_t* block_flows_ = nullptr;
};

}  // namespace kestrel
