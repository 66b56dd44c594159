// The literals are from a model in another language.
#include "record/flow_identity.h"

#include <gtest/gtest.h>

#include <numeric>

namespace kestrel {
namespace {

flow_record tcp_flow() {
    flow_record record = {};
    record.l3protocol = 4;
    record.ipv4 = {0xC0000201, 0xC6336407, 0};
    record.l4protocol = 6;
    record.srcport = 1000;
    record.dstport = 80;
    return record;
}

class FlowIdentity : public testing::Test {
  protected:
    ~FlowIdentity() override { flow_identity_set_mask(FLOW_MASK_DEFAULT); }
};

TEST_F(FlowIdentity, IsOfAddressesProtocolAndPorts) {
    const flow_record record = tcp_flow();
    EXPECT_EQ(0x5D53E62408AE09B6u, flow_identity(record));
    flow_record other = record;
    other.dstport = 81;
    EXPECT_NE(flow_identity(record), flow_identity(other));
    other = record;
    other.ipv4.srcipv4 += 1;
    EXPECT_NE(flow_identity(record), flow_identity(other));
}

TEST_F(FlowIdentity, IsOneForAllRecordsOfAFlow) {
    const flow_record record = tcp_flow();
    flow_record later = record;
    later.start = 5;
    later.end = 6;
    later.packets = 7;
    later.bytes = 8;
    later.tcpflags = 9;
    later.ipv4.tos = 10;
    later.inputsnmp = later.outputsnmp = 11;
    later.sampling = 12;
    later.icmptypecode = 13;
    EXPECT_EQ(flow_identity(record), flow_identity(later));
}

TEST_F(FlowIdentity, LeavesOutWhatTheFlowKeyLeavesOut) {
    flow_identity_set_mask(0x0071);  // without ports and ICMP types
    flow_record record = tcp_flow();
    EXPECT_EQ(0xCEF6AC584996AB9Au, flow_identity(record));
    record.srcport = 1;
    EXPECT_EQ(0xCEF6AC584996AB9Au, flow_identity(record));
    flow_identity_set_mask(0);
    EXPECT_EQ(0u, flow_identity(record));
}

TEST_F(FlowIdentity, ReadsPortsOnlyWhereThereAreSome) {
    flow_record record = tcp_flow();
    record.l4protocol = 47;
    EXPECT_EQ(0xB483211697840199u, flow_identity(record));
    record.srcport = 1;
    EXPECT_EQ(0xB483211697840199u, flow_identity(record));
}

TEST_F(FlowIdentity, ReadsWholeIpv6Addresses) {
    flow_record record = {};
    record.l3protocol = 6;
    record.l4protocol = 58;
    std::iota(record.ipv6.srcipv6, record.ipv6.srcipv6 + 16, uint8_t{0});
    std::iota(record.ipv6.dstipv6, record.ipv6.dstipv6 + 16, uint8_t{16});
    EXPECT_EQ(0xFF6F7C908E533742u, flow_identity(record));
}

}  // namespace
}  // namespace kestrel
