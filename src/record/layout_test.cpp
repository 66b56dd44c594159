// Tests of the data space: blocks, and how a record is made ready.
#include "record/layout.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace kestrel;

class Layout : public testing::Test {
  protected:
    Layout() { std::memset(room_, 0xEE, sizeof room_); }
    void TearDown() override { kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0; }

    flow_record& record() { return *reinterpret_cast<flow_record*>(room_); }
    uint16_t word_at(size_t offset) const {
        uint16_t value;
        std::memcpy(&value, room_ + offset, sizeof value);
        return value;
    }

    alignas(8) uint8_t room_[256];
};

TEST_F(Layout, BlocksAreAbsentAtFirst) {
    EXPECT_EQ(0u, kestrel_vlan_offset);
    EXPECT_EQ(0u, kestrel_mpls_offset);
    EXPECT_EQ(0u, kestrel_mac_offset);
    EXPECT_EQ(nullptr, block_at<vlan_block>(record(), kestrel_vlan_offset));
}

TEST_F(Layout, BlockLiesAtItsOffsetFromTheRecord) {
    const void* block = block_at<mpls_block>(record(), 98);
    EXPECT_EQ(room_ + 98, block);
}

TEST_F(Layout, PreparedRecordIsOnePacketOfWhichNothingIsKnown) {
    prepare_record(record());
    EXPECT_EQ(1u, record().packets);
    EXPECT_EQ(0u, record().bytes);
    EXPECT_EQ(0u, record().tcpflags);
    EXPECT_EQ(0u, record().l3protocol);
    EXPECT_EQ(0u, record().l4protocol);
    EXPECT_EQ(0u, record().export_flag);
}

TEST_F(Layout, PreparingLeavesTheOtherFieldsAlone) {
    prepare_record(record());
    EXPECT_EQ(0xEEEE'EEEE'EEEE'EEEEu, record().start);
    EXPECT_EQ(0xEEEE'EEEE'EEEE'EEEEu, record().end);
    EXPECT_EQ(0xEEEEu, record().inputsnmp);
    EXPECT_EQ(0xEEEEu, record().icmptypecode);
    EXPECT_EQ(0xEEEE'EEEEu, record().ipv4.srcipv4);
}

TEST_F(Layout, PreparingClearsTheCountsOfTheBlocksThatExist) {
    kestrel_mpls_offset = 88;
    kestrel_vlan_offset = 132;
    prepare_record(record());
    EXPECT_EQ(0u, word_at(88 + 40));
    EXPECT_EQ(0u, word_at(132 + 8));
    EXPECT_EQ(0xEEEEu, word_at(88 + 38));
    EXPECT_EQ(0xEEEEu, word_at(132 + 6));
}

TEST_F(Layout, PreparingWithoutBlocksTouchesNoDataSpace) {
    prepare_record(record());
    for (size_t at = 88; at < sizeof room_; ++at)
        ASSERT_EQ(0xEE, room_[at]) << at;
}

TEST_F(Layout, RecordsInArraysStayAlignedWhateverTheirSize) {
    EXPECT_EQ(88u, record_stride(88));
    EXPECT_EQ(104u, record_stride(98));
    EXPECT_EQ(136u, record_stride(132));
}

}  // namespace
