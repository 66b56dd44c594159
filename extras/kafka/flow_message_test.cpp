// The expected bytes were written by hand from the published numbers of FlowMessage.
#include "flow_message.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace {

using kafka::flow_message;
using kafka::sampler_address;

struct large_record {
    flow_record base;
    vlan_block vlan;
    mpls_block mpls;
    mac_block mac;
} __attribute__((packed));

sampler_address probe() {
    sampler_address address;
    EXPECT_TRUE(kafka::read_sampler_address("192.0.2.254", address));
    return address;
}

std::vector<uint8_t> bytes_of(std::initializer_list<unsigned> values) {
    return {values.begin(), values.end()};
}

class FlowMessage : public testing::Test {
  protected:
    // blocks: whether records have tags, labels and MAC addresses.
    void use(bool blocks) {
        kestrel_vlan_offset = blocks ? offsetof(large_record, vlan) : 0;
        kestrel_mpls_offset = blocks ? offsetof(large_record, mpls) : 0;
        kestrel_mac_offset = blocks ? offsetof(large_record, mac) : 0;
        getters_.reset(getter_base_init());
    }
    void TearDown() override { kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0; }

    std::vector<uint8_t> write(const flow_record& record, uint32_t number, uint64_t now_ns) const {
        uint8_t place[flow_message::longest];
        const size_t length =
            flow_message(getters_.get(), probe()).write(record, now_ns, number, place);
        return {place, place + length};
    }

  private:
    struct freed {
        void operator()(getter* table) const { std::free(table); }
    };
    std::unique_ptr<getter, freed> getters_;
};

flow_record tcp_flow() {
    flow_record record{};
    record.start = 1000;
    record.end = 2000;
    record.packets = 3;
    record.bytes = 300;
    record.inputsnmp = 1;
    record.outputsnmp = 2;
    record.l3protocol = 4;
    record.ipv4 = {0xC0000201, 0xC6336402, 0x10};
    record.l4protocol = 6;
    record.srcport = 40000;
    record.dstport = 443;
    record.tcpflags = 0x1B;
    return record;
}

TEST_F(FlowMessage, HasTheNumbersOfGoflow2) {
    use(false);
    EXPECT_EQ(write(tcp_flow(), 7, 3000),
              bytes_of({
                  67,                                  // bytes that follow
                  0x18, 1,                             // sampling_rate = 3: all
                  0x32, 4,    192,  0,    2,    1,     // src_addr = 6
                  0x3A, 4,    198,  51,   100,  2,     // dst_addr = 7
                  0x48, 0xAC, 0x02,                    // bytes = 9
                  0x50, 3,                             // packets = 10
                  0x90, 0x01, 1,                       // in_if = 18
                  0x98, 0x01, 2,                       // out_if = 19
                  0xA0, 0x01, 6,                       // proto = 20
                  0xA8, 0x01, 0xC0, 0xB8, 0x02,        // src_port = 21
                  0xB0, 0x01, 0xBB, 0x03,              // dst_port = 22
                  0xB8, 0x01, 0x10,                    // ip_tos = 23
                  0xD0, 0x01, 0x1B,                    // tcp_flags = 26
                  0xF0, 0x01, 0x80, 0x10,              // etype = 30
                  0xF8, 0x06, 0xE8, 0x07,              // time_flow_start_ns = 111
                  0x80, 0x07, 0xD0, 0x0F,              // time_flow_end_ns = 112
                  0x20, 7,                             // sequence_num = 4
                  0x5A, 4,    192,  0,    2,    0xFE,  // sampler_address = 11
                  0xF0, 0x06, 0xB8, 0x17,              // time_received_ns = 110
              }));
}

TEST_F(FlowMessage, HasTagsLabelsAndMacAddresses) {
    use(true);
    large_record record{};
    record.base = tcp_flow();
    record.vlan = {{100, 200, 0, 0}, 2};
    record.mpls.entry[0] = 1000U << 4 | 1U << 1;
    record.mpls.entry[1] = 16U << 4 | 1U;
    record.mpls.count = 2;
    record.mac = {{2, 0, 0x5E, 0x10, 0, 0xFF}, {2, 0, 0, 0, 0, 1}};
    flow_record base_and_blocks[2];  // aligned
    static_assert(sizeof record <= sizeof base_and_blocks);
    std::memcpy(static_cast<void*>(base_and_blocks), &record, sizeof record);
    const std::vector<uint8_t> written = write(base_and_blocks[0], 7, 3000);
    const std::string text(written.begin(), written.end());
    const auto has = [&](std::initializer_list<unsigned> values) {
        const std::vector<uint8_t> wanted = bytes_of(values);
        return text.find(std::string(wanted.begin(), wanted.end())) != std::string::npos;
    };
    EXPECT_EQ(written.size(), 1U + 67 + 8 + 8 + 3 + 3 + 6);
    EXPECT_EQ(written[0], 67 + 8 + 8 + 3 + 3 + 6);
    // src_mac = 27: 0x02005E1000FF, and dst_mac = 28: 0x020000000001, seven bits a byte
    EXPECT_TRUE(has({0xD8, 0x01, 0xFF, 0x81, 0xC0, 0xF0, 0x85, 0x40}));
    EXPECT_TRUE(has({0xE0, 0x01, 0x81, 0x80, 0x80, 0x80, 0x80, 0x40}));
    EXPECT_TRUE(has({0xE8, 0x01, 100}));                // vlan_id = 29
    EXPECT_TRUE(has({0x88, 0x02, 100}));                // src_vlan = 33
    EXPECT_TRUE(has({0x8A, 0x05, 3, 0xE8, 0x07, 16}));  // mpls_label = 81
}

TEST_F(FlowMessage, HasIPv6AndTypeAndCodeOfIcmp) {
    use(false);
    flow_record record{};
    record.packets = 1;
    record.bytes = 64;
    record.l3protocol = 6;
    record.ipv6.srcipv6[15] = 0x20;  // 2001:db8::1, lowest byte first
    record.ipv6.srcipv6[14] = 0x01;
    record.ipv6.srcipv6[13] = 0x0D;
    record.ipv6.srcipv6[12] = 0xB8;
    record.ipv6.srcipv6[0] = 1;
    record.ipv6.dstipv6[15] = 0xFE;  // fe80::
    record.ipv6.dstipv6[14] = 0x80;
    record.l4protocol = 58;
    record.srcport = 9;
    record.dstport = 9;
    record.icmptypecode = 129 << 8 | 3;
    record.sampling = 100;
    EXPECT_EQ(write(record, 0, 0),
              bytes_of({
                  63,                                                                      //
                  0x18, 100,                                                               //
                  0x32, 16,   0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,  //
                  0x3A, 16,   0xFE, 0x80, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  //
                  0x48, 64,                                                                //
                  0x50, 1,                                                                 //
                  0xA0, 0x01, 58,                                                          // proto
                  0xF0, 0x01, 0xDD, 0x8D, 0x02,                                            // 0x86DD
                  0xF8, 0x01, 0x81, 0x01,              // icmp_type
                  0x80, 0x02, 3,                       // icmp_code
                  0x5A, 4,    192,  0,    2,    0xFE,  //
              }));
}

// Numbers that are as large as they can be.
TEST_F(FlowMessage, FitsWhateverARecordHolds) {
    use(true);
    flow_record base_and_blocks[2];
    std::memset(static_cast<void*>(base_and_blocks), 0xFF, sizeof base_and_blocks);
    auto& record = reinterpret_cast<large_record&>(base_and_blocks[0]);
    record.mpls.count = MPLS_BLOCK_ENTRIES;
    record.vlan.count = VLAN_BLOCK_IDS;
    for (const uint8_t version : {uint8_t{4}, uint8_t{6}})
        for (unsigned protocol = 0; protocol < 256; ++protocol) {
            base_and_blocks[0].l3protocol = version;
            base_and_blocks[0].l4protocol = static_cast<uint8_t>(protocol);
            const auto written = write(base_and_blocks[0], UINT32_MAX, UINT64_MAX);
            ASSERT_GT(written.size(), 128U);
            ASSERT_LT(written.size(), flow_message::longest);
            ASSERT_EQ(written[0] - 0x80U + written[1] * 128U, written.size() - 2);
        }
}

TEST(SamplerAddress, IsReadInBothFamilies) {
    sampler_address address;
    EXPECT_TRUE(kafka::read_sampler_address("2001:db8::1", address));
    EXPECT_EQ(address.length, 16U);
    EXPECT_EQ(address.bytes[15], 1);
    EXPECT_EQ(address.text, "2001:db8::1");
    EXPECT_TRUE(kafka::read_sampler_address("10.1.2.3", address));
    EXPECT_EQ(address.length, 4U);
    EXPECT_FALSE(kafka::read_sampler_address("localhost", address));
}

}  // namespace
