// Tests of records in ring slots that are not aligned.
#include "flow/slot_record.h"

#include <gtest/gtest.h>

#include "kestrelexp/storage.h"

namespace {

using namespace kestrel;

class SlotRecord : public testing::Test {
  protected:
    alignas(8) uint8_t slots_[2 * 98] = {};  // two slots, 98 bytes each as with -e vlan
    const slot_record record_{98};
};

TEST_F(SlotRecord, AnAlignedSlotIsUsedInPlace) {
    EXPECT_EQ(static_cast<void*>(slots_), &record_.in(slots_));
    EXPECT_EQ(static_cast<void*>(slots_), &record_.empty(slots_));
}

TEST_F(SlotRecord, AnyOtherSlotIsReadThroughAnAlignedCopy) {
    slots_[98 + 16] = 7;  // packets, low byte
    slots_[98 + 97] = 9;  // the last byte of the data space
    const flow_record& record = record_.in(slots_ + 98);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(&record) % 8);
    EXPECT_EQ(7u, record.packets);
    EXPECT_EQ(9, reinterpret_cast<const uint8_t*>(&record)[97]);
}

TEST_F(SlotRecord, AnyOtherSlotIsFilledThroughAnAlignedCopy) {
    flow_record& record = record_.empty(slots_ + 98);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(&record) % 8);
    record.bytes = 0x01020304;
    reinterpret_cast<uint8_t*>(&record)[97] = 5;
    EXPECT_EQ(0, slots_[98 + 20]);
    record_.store(slots_ + 98);
    EXPECT_EQ(4, slots_[98 + 20]);
    EXPECT_EQ(1, slots_[98 + 23]);
    EXPECT_EQ(5, slots_[98 + 97]);
}

TEST_F(SlotRecord, StoringInPlaceChangesNothing) {
    record_.empty(slots_).bytes = 5;
    record_.store(slots_);
    EXPECT_EQ(5, slots_[20]);
}

TEST_F(SlotRecord, SlotsOfARingLieAtExactlyTheirSize) {
    temporal_storage* ring = temporal_storage_init(8, 98, nullptr, "test");
    const auto* first = static_cast<uint8_t*>(temporal_storage_current(ring));
    EXPECT_EQ(first + 98, temporal_storage_put(ring));
    EXPECT_EQ(first + 196, temporal_storage_put(ring));
}

}  // namespace
