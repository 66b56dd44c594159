#include <gtest/gtest.h>

#include <string>

#include "kestrelexp/getter.h"
#include "kestrelexp/service.h"

namespace {

class RecordPrint : public testing::Test {
  protected:
    void TearDown() override { verbose_level = -1; }

    std::string line(int level = 5, int verbosity = 5) {
        verbose_level = verbosity;
        testing::internal::CaptureStderr();
        record_print(level, &record_);
        return testing::internal::GetCapturedStderr();
    }

    flow_record record_ = {};
};

TEST_F(RecordPrint, UnknownProtocolsAreNumbers) {
    record_.l4protocol = 47;
    EXPECT_EQ(
        "VERBOSE: 5:flow: FLOW:              0,             0,0,0,NOIP(0),xxx,xxx,"
        "L4:47,xxx,xxx\n",
        line());
}

TEST_F(RecordPrint, TcpOverIpv4) {
    record_.start = 1'700'000'000'000'000'001;
    record_.end = 42;
    record_.packets = 4'000'000'000;
    record_.bytes = 7;
    record_.l3protocol = 4;
    record_.ipv4.srcipv4 = 0xC0000201;
    record_.ipv4.dstipv4 = 0x0A000001;
    record_.l4protocol = 6;
    record_.srcport = 65535;
    record_.dstport = 80;
    record_.tcpflags = 0x12;
    EXPECT_EQ(
        "VERBOSE: 5:flow: FLOW: 1700000000000000001,            42,4000000000,7,IPV4,192.0.2.1,"
        "10.0.0.1,TCP,65535,80,---A--S-\n",
        line());
}

TEST_F(RecordPrint, EachTcpFlagHasItsLetter) {
    record_.l4protocol = 6;
    record_.tcpflags = 0xFF;
    EXPECT_NE(std::string::npos, line().find("TCP,0,0,CEUAPRSF\n"));
    record_.tcpflags = 0xA5;
    EXPECT_NE(std::string::npos, line().find("TCP,0,0,C-U--R-F\n"));
    record_.tcpflags = 0;
    EXPECT_NE(std::string::npos, line().find("TCP,0,0,--------\n"));
}

TEST_F(RecordPrint, UdpOverIpv6ShowsTheDestinationAsStored) {
    record_.l3protocol = 6;
    // 2001:db8::1 to 2001:db8::2, both stored in reverse
    const uint8_t source[16] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xb8, 0x0d, 0x01, 0x20};
    const uint8_t destination[16] = {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xb8, 0x0d, 0x01, 0x20};
    std::copy(source, source + 16, record_.ipv6.srcipv6);
    std::copy(destination, destination + 16, record_.ipv6.dstipv6);
    record_.l4protocol = 17;
    record_.srcport = 53;
    record_.dstport = 5353;
    EXPECT_EQ(
        "VERBOSE: 5:flow: FLOW:              0,             0,0,0,IPV6,2001:db8::1,"
        "200::b80d:120,UDP,53,5353\n",
        line());
}

TEST_F(RecordPrint, BothIcmpProtocolsShowTypeAndCode) {
    record_.icmptypecode = 0x0800;
    record_.l4protocol = 1;
    EXPECT_NE(std::string::npos, line().find(",ICMP,2048\n"));
    record_.l4protocol = 58;
    EXPECT_NE(std::string::npos, line().find(",ICMP,2048\n"));
}

TEST_F(RecordPrint, LongestLineIsWhole) {
    record_.start = record_.end = UINT64_MAX;
    record_.packets = record_.bytes = UINT32_MAX;
    record_.l3protocol = 6;
    std::fill_n(record_.ipv6.srcipv6, 16, uint8_t{0xEE});
    std::fill_n(record_.ipv6.dstipv6, 16, uint8_t{0xEE});
    record_.l4protocol = 6;
    record_.srcport = record_.dstport = 65535;
    record_.tcpflags = 0xFF;
    EXPECT_EQ(
        "VERBOSE: 5:flow: FLOW: 18446744073709551615,18446744073709551615,4294967295,4294967295,"
        "IPV6,eeee:eeee:eeee:eeee:eeee:eeee:eeee:eeee,eeee:eeee:eeee:eeee:eeee:eeee:eeee:eeee,"
        "TCP,65535,65535,CEUAPRSF\n",
        line());
}

TEST_F(RecordPrint, NothingIsShownAboveTheVerbosity) {
    EXPECT_EQ("", line(5, 4));
}

}  // namespace
