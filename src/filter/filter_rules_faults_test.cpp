#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/support/filter_fixture.h"

namespace {

using namespace kestrel_test;

struct fault {
    const char* name;
    std::string rule;
    std::string message;
};

void PrintTo(const fault& f, std::ostream* out) {
    *out << f.rule;
}

const std::string no_host(64, 'x');  // no name has a part of 64 letters

const fault faults[] = {
    {"FastAlone", "fast", "Incomplete rule: fast"},
    {"FastAloneWithBlanks", " fast ", "Incomplete rule:  fast "},
    {"FastNotAlone", "fast not", "Invalid rule found"},
    {"FastSideAlone", "fast src", "Incomplete rule: fast src"},
    {"FastFieldAlone", "fast src addr", "Incomplete rule: fast src addr"},
    {"FastSecondGroupIncomplete", "fast src addr 10.0.0.1 dst",
     "Incomplete rule: fast src addr 10.0.0.1 dst"},
    {"FastOtherField", "fast src port 80", "Invalid fast rule. only addr field is allowed"},
    {"FastAny", "fast any any", "Invalid fast rule. only addr field is allowed"},
    {"FastNotTwice", "fast not not addr 10.0.0.1", "Invalid fast rule. only addr field is allowed"},
    {"FastSideTwice", "fast src src addr 10.0.0.1",
     "Invalid fast rule. only addr field is allowed"},
    {"FastSideThatGoesOn", "fast dstaddr 10.0.0.1",
     "Invalid fast rule. only addr field is allowed"},
    {"FastLastValueFaulty", "fast src addr 10.0.0.1 dst addr 10.0.0.0/33",
     "Invalid mask found\nInvalid rule found"},
    {"FastHost", "fast addr " + no_host,
     "Unable to resolve host: " + no_host + "\nInvalid rule found"},
    {"AnyAndMore", "any port 80", "Addon parameters after ANY are not allowed"},
    {"NotAnyAndMore", "not any src", "Addon parameters after ANY are not allowed"},
    {"AnyTwice", "any any", "Addon parameters after ANY are not allowed"},
    {"AnyNotFirst", "port 80 any", "Incomplete rule: port 80 any"},
    {"NotTwice", "not not", "Incomplete rule: not not"},
    {"SideAlone", "src", "Incomplete rule: src"},
    {"FieldAlone", "port", "Incomplete rule: port"},
    {"SideAndFieldAlone", "src port", "Incomplete rule: src port"},
    {"SecondGroupIncomplete", "port  80 proto", "Incomplete rule: port  80 proto"},
    {"UnknownField", "ports 80", "Invalid rule: ports 80"},
    {"FieldThatGoesOn", "address 10.0.0.1", "Invalid rule: address 10.0.0.1"},
    {"FieldInCapitals", "PORT  80", "Invalid rule: PORT  80"},
    {"SideTwice", "src src addr 10.0.0.1", "Invalid rule: src src addr 10.0.0.1"},
    {"VlanSource", "src vlan 5", "src|dst prefix not allowed for vlans"},
    {"VlanDestination", "dst vlan x", "src|dst prefix not allowed for vlans"},
    {"PhySource", "src phy 5", "src|dst prefix not allowed for physical interface id"},
    {"PacketsSource", "src packets 5", "src|dst prefix not allowed for packet count"},
    {"BytesDestination", "dst bytes 5", "src|dst prefix not allowed for byte count"},
    {"Vlan", "vlan ssh", "Invalid number: ssh"},
    {"Phy", "phy eth0", "Invalid number: eth0"},
    {"Packets", "packets many", "Invalid number: many"},
    {"Bytes", "bytes 1k", "Invalid number: 1k"},
    {"PortRange", "port 80-", "Bad formatted range"},
    {"PortOrder", "port 81-80", "invalid range: 81-80"},
    {"Service", "port nosuchservice", "Unknown service name: nosuchservice"},
    {"Protocol", "proto nosuchprotocol", "Unknown proto: nosuchprotocol"},
    {"ProtocolRange", "proto 6-17", "Unknown proto: 6-17"},
    {"IpVersion", "ipproto 4", "Bad invalid ipproto protocol: 4"},
    {"IpVersionInCapitals", "ipproto IPv4", "Bad invalid ipproto protocol: IPv4"},
    {"Prefix", "addr 10.0.0.0/33", "Invalid mask found"},
    {"PrefixForm", "addr 10.0.0.0/", "Bad formated address/mask"},
    {"AddressRange", "addr 10.0.0.1-", "Bad formated address-range"},
    {"AddressFamilies", "addr 10.0.0.1-::1", "Unable to mix ipv4 and ipv6 address"},
    {"Host", "src addr " + no_host, "Unable to resolve host: " + no_host},
};

class FilterFaults : public testing::TestWithParam<fault> {};

TEST_P(FilterFaults, AreNamedAndRefuseTheFile) {
    const auto result = load_rules("fast src addr 10.0.0.1\nport 80\n" + GetParam().rule + "\n");
    EXPECT_EQ(nullptr, result.rules);
    EXPECT_EQ(GetParam().message + "\n", result.messages);
}

INSTANTIATE_TEST_SUITE_P(Rows, FilterFaults, testing::ValuesIn(faults),
                         [](const auto& row) { return row.param.name; });

}  // namespace
