#include "message_key.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

std::vector<uint8_t> key_of(const flow_record& record) {
    uint8_t place[kafka::longest_flow_key];
    return {place, place + kafka::write_flow_key(record, place)};
}

flow_record flow(uint32_t source, uint32_t destination, uint16_t from, uint16_t to) {
    flow_record record{};
    record.l3protocol = 4;
    record.l4protocol = 17;
    record.ipv4 = {source, destination, 0};
    record.srcport = from;
    record.dstport = to;
    return record;
}

TEST(MessageKey, IsTheSameInBothDirections) {
    const std::vector<uint8_t> wanted = {10, 0, 0, 1, 0x9C, 0x40, 10, 0, 0, 2, 0, 53, 17};
    EXPECT_EQ(key_of(flow(0x0A000001, 0x0A000002, 40000, 53)), wanted);
    EXPECT_EQ(key_of(flow(0x0A000002, 0x0A000001, 53, 40000)), wanted);
}

TEST(MessageKey, OrdersPortsOfOneAddress) {
    const std::vector<uint8_t> wanted = {10, 0, 0, 1, 0, 53, 10, 0, 0, 1, 0x9C, 0x40, 17};
    EXPECT_EQ(key_of(flow(0x0A000001, 0x0A000001, 40000, 53)), wanted);
    EXPECT_EQ(key_of(flow(0x0A000001, 0x0A000001, 53, 40000)), wanted);
}

TEST(MessageKey, HasNoPortsWhereTheProtocolHasNone) {
    flow_record record = flow(0x0A000002, 0x0A000001, 8, 9);
    record.l4protocol = 1;
    EXPECT_EQ(key_of(record), (std::vector<uint8_t>{10, 0, 0, 1, 0, 0, 10, 0, 0, 2, 0, 0, 1}));
}

TEST(MessageKey, HoldsIPv6AsOnTheWire) {
    flow_record record = flow(0, 0, 1, 2);
    record.l3protocol = 6;
    for (uint8_t n = 0; n < 16; ++n) {
        record.ipv6.srcipv6[n] = static_cast<uint8_t>(0x2F - n);
        record.ipv6.dstipv6[n] = static_cast<uint8_t>(0x1F - n);
    }
    EXPECT_EQ(key_of(record),
              (std::vector<uint8_t>{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19,
                                    0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F, 0,    2,    0x20, 0x21,
                                    0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x2B,
                                    0x2C, 0x2D, 0x2E, 0x2F, 0,    1,    17}));
}

}  // namespace
