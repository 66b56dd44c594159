// Tests of the tables and the hash steps. Expected values were worked out bit by bit from the
// polynomial.
#include "flow/flow_key.h"

#include <gtest/gtest.h>

namespace {

using namespace kestrel;

TEST(FlowKey, TableOfBytesIsTheReflectedEcmaCrc) {
    EXPECT_EQ(0u, crc64_table[0][0]);
    EXPECT_EQ(0xB32E'4CBE'03A7'5F6Fu, crc64_table[0][1]);
    EXPECT_EQ(0xC96C'5795'D787'0F42u, crc64_table[0][128]);
}

TEST(FlowKey, OtherTablesAdvanceByAZeroByteEach) {
    EXPECT_EQ(0x54E9'7992'5CD0'F10Du, crc64_table[1][1]);
    EXPECT_EQ(0x3F0B'E14A'916A'6DCBu, crc64_table[2][1]);
    EXPECT_EQ(0x1DEE'8A5E'222C'A1DCu, crc64_table[3][1]);
    EXPECT_EQ(0x1E5C'D90C'6EC2'440Du, crc64_table[3][255]);
}

TEST(FlowKey, TablesTakeEightKibibytes) {
    EXPECT_EQ(8192u, sizeof crc64_table);
}

TEST(FlowKey, WordStepShiftsTheStateLeft) {
    EXPECT_EQ(0xF4A5'8635'1E1B'9F4Bu, key_step32(flow_key_start, 0));
    EXPECT_EQ(0x190A'626E'32FC'49B0u, key_step32(0x0123'4567'89AB'CDEF, 0xDEAD'BEEF));
}

TEST(FlowKey, HalfWordStepTakesTheLowByteFirst) {
    EXPECT_EQ(0xBCBB'F40B'E13F'85C2u, key_step16(flow_key_start, 0x0ABC));
    EXPECT_EQ(0x5541'B2A9'B1DC'25ADu, key_step16(0x0123'4567'89AB'CDEF, 0xBEEF));
}

TEST(FlowKey, KeyIsTheComplementWithTheTopBitSet) {
    EXPECT_EQ(-1, key_finish(0));
    EXPECT_EQ(INT64_MIN, key_finish(0xFFFF'FFFF'FFFF'FFFF));
    EXPECT_EQ(static_cast<int64_t>(0xFEDC'BA98'7654'3210), key_finish(0x0123'4567'89AB'CDEF));
}

}  // namespace
