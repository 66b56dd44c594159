// The example that is installed does what its comments say.
#include <gtest/gtest.h>

#include "tests/support/filter_fixture.h"
#include "tests/support/source_tree.h"

namespace {

using namespace kestrel_test;

class FilterExample : public testing::Test {
  protected:
    bool kept(const flow_record& record) { return keeps(rules_, record); }
    bool kept(const char* source, const char* destination) {
        return keeps(rules_, source, destination);
    }

  private:
    kestrel::filter_owner rules_ =
        kestrel::filter_load(kestrel_test::in_source_tree("etc/filter-example.txt").c_str());
};

flow_record with_ports(const char* source, const char* destination, uint16_t from, uint16_t to) {
    flow_record record = flow(source, destination);
    record.srcport = from;
    record.dstport = to;
    return record;
}

TEST_F(FilterExample, OnlyTheListedIpv4SourcesGoOn) {
    EXPECT_TRUE(kept("10.0.0.0", "203.0.113.1"));
    EXPECT_TRUE(kept("10.255.255.255", "203.0.113.1"));
    EXPECT_TRUE(kept("192.0.2.10", "203.0.113.1"));
    EXPECT_TRUE(kept("192.0.2.20", "203.0.113.1"));
    EXPECT_TRUE(kept("198.51.100.7", "203.0.113.1"));
    EXPECT_FALSE(kept("9.255.255.255", "203.0.113.1"));
    EXPECT_FALSE(kept("11.0.0.0", "10.0.0.1"));
    EXPECT_FALSE(kept("192.0.2.9", "203.0.113.1"));
    EXPECT_FALSE(kept("192.0.2.21", "203.0.113.1"));
    EXPECT_FALSE(kept("198.51.100.8", "203.0.113.1"));
}

TEST_F(FilterExample, OnlyTheListedIpv6SourcesGoOn) {
    EXPECT_TRUE(kept("2001:db8:1::", "2001:db8::1"));
    EXPECT_TRUE(kept("2001:db8:1:ffff:ffff:ffff:ffff:ffff", "2001:db8::1"));
    EXPECT_TRUE(kept("2001:db8:2:3::9", "2001:db8::1"));
    EXPECT_FALSE(kept("2001:db8:2:4::9", "2001:db8::1"));
    EXPECT_FALSE(kept("2001:db8::1", "2001:db8:1::1"));
}

TEST_F(FilterExample, FlowsOfUpTo99BytesAreDropped) {
    flow_record record = flow("10.0.0.1", "203.0.113.1");
    record.bytes = 99;
    EXPECT_FALSE(kept(record));
    record.bytes = 100;
    EXPECT_TRUE(kept(record));
    record.bytes = 65536;
    EXPECT_FALSE(kept(record));
    record.bytes = 65636;
    EXPECT_TRUE(kept(record));
}

TEST_F(FilterExample, FlowsOfInterface7AreDropped) {
    flow_record record = flow("10.0.0.1", "203.0.113.1");
    record.inputsnmp = 7;
    EXPECT_FALSE(kept(record));
}

TEST_F(FilterExample, TheBackupHostKeepsItsNameServiceAlone) {
    EXPECT_FALSE(kept("10.0.0.1", "10.9.9.9"));
    flow_record query = with_ports("10.0.0.1", "10.9.9.9", 40000, 53);
    EXPECT_TRUE(kept(query));
    query.l4protocol = 6;
    EXPECT_FALSE(kept(query));
    EXPECT_TRUE(kept("10.9.9.9", "10.0.0.1"));  // what the host sends is not meant
}

TEST_F(FilterExample, IcmpIsDropped) {
    flow_record record = flow("10.0.0.1", "203.0.113.1");
    record.l4protocol = 1;
    EXPECT_FALSE(kept(record));
}

TEST_F(FilterExample, OneIpv6DestinationIsDropped) {
    EXPECT_FALSE(kept("2001:db8:1::1", "2001:db8:ffff::1"));
    EXPECT_TRUE(kept("2001:db8:1::1", "2001:db8:ffff::2"));
    EXPECT_TRUE(kept("2001:db8:1::1", "2001:db8:fffe::1"));
}

TEST_F(FilterExample, ServersKeepFlowsOfLowPortsAlone) {
    EXPECT_TRUE(kept(with_ports("10.1.0.1", "203.0.113.1", 40000, 1023)));
    EXPECT_TRUE(kept(with_ports("10.2.0.1", "10.1.0.1", 80, 40000)));
    EXPECT_FALSE(kept(with_ports("10.1.0.1", "203.0.113.1", 40000, 1024)));
    EXPECT_FALSE(kept(with_ports("10.2.0.1", "10.1.0.1", 8080, 40000)));
    EXPECT_TRUE(kept(with_ports("10.2.0.1", "203.0.113.1", 8080, 40000)));
}

}  // namespace
