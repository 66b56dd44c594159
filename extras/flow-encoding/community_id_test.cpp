// The published vectors of the Community ID, and one of a protocol without ports.
#include "community_id.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>

namespace {

struct vector_row {
    uint8_t protocol;
    const char* source;
    const char* destination;
    uint16_t source_port;       // of ICMP: the type
    uint16_t destination_port;  // of ICMP: the code
    uint16_t seed;
    const char* expected;
};

void PrintTo(const vector_row& row, std::ostream* out) {
    *out << int{row.protocol} << ' ' << row.source << ' ' << row.source_port << " seed "
         << row.seed;
}

flow_record record_of(const vector_row& row) {
    flow_record record{};
    in_addr source, destination;
    record.l4protocol = row.protocol;
    record.srcport = row.source_port;
    record.dstport = row.destination_port;
    record.icmptypecode = static_cast<uint16_t>(row.source_port << 8 | row.destination_port);
    if (inet_pton(AF_INET, row.source, &source) == 1 &&
        inet_pton(AF_INET, row.destination, &destination) == 1) {
        record.l3protocol = 4;
        record.ipv4.srcipv4 = ntohl(source.s_addr);
        record.ipv4.dstipv4 = ntohl(destination.s_addr);
        return record;
    }
    record.l3protocol = 6;
    EXPECT_EQ(inet_pton(AF_INET6, row.source, record.ipv6.srcipv6), 1);
    EXPECT_EQ(inet_pton(AF_INET6, row.destination, record.ipv6.dstipv6), 1);
    std::reverse(record.ipv6.srcipv6, record.ipv6.srcipv6 + 16);
    std::reverse(record.ipv6.dstipv6, record.ipv6.dstipv6 + 16);
    return record;
}

std::string id_of(const vector_row& row) {
    std::string text(flow_encoding::community_id_length, '\0');
    flow_encoding::put_community_id(text.data(), record_of(row), row.seed);
    return text;
}

class CommunityId : public testing::TestWithParam<vector_row> {};

TEST_P(CommunityId, IsThePublishedOne) {
    EXPECT_EQ(id_of(GetParam()), GetParam().expected);
}

constexpr const char* echo = "1:X0snYXpgwiv9TZtqg64sgzUn6Dk=";
constexpr const char* solicitation = "1:dGHyGvjMfljg6Bppwm3bg0LO8TY=";
constexpr const char* association = "1:jQgCxbku+pNGw8WPbEc/TS/uTpQ=";
constexpr const char* web = "1:LQU9qZlK+B5F3KDmev6m5PMibrg=";
constexpr const char* name_service = "1:d/FP5EW3wiY1vCndhwleRRKHowQ=";

INSTANTIATE_TEST_SUITE_P(
    Tcp, CommunityId,
    testing::Values(vector_row{6, "128.232.110.120", "66.35.250.204", 34855, 80, 0, web},
                    vector_row{6, "66.35.250.204", "128.232.110.120", 80, 34855, 0, web},
                    vector_row{6, "128.232.110.120", "66.35.250.204", 34855, 80, 1,
                               "1:3V71V58M3Ksw/yuFALMcW0LAHvc="}));

INSTANTIATE_TEST_SUITE_P(
    Udp, CommunityId,
    testing::Values(vector_row{17, "192.168.1.52", "8.8.8.8", 54585, 53, 0, name_service},
                    vector_row{17, "8.8.8.8", "192.168.1.52", 53, 54585, 0, name_service},
                    vector_row{17, "192.168.1.52", "8.8.8.8", 54585, 53, 1,
                               "1:Q9We8WO3piVF8yEQBNJF4uiSVrI="}));

INSTANTIATE_TEST_SUITE_P(
    Sctp, CommunityId,
    testing::Values(vector_row{132, "192.168.170.8", "192.168.170.56", 7, 80, 0, association},
                    vector_row{132, "192.168.170.56", "192.168.170.8", 80, 7, 0, association},
                    vector_row{132, "192.168.170.8", "192.168.170.56", 7, 80, 1,
                               "1:Y1/0jQg6e+I3ZwZZ9LP65DNbTXU="}));

INSTANTIATE_TEST_SUITE_P(
    Icmp, CommunityId,
    testing::Values(vector_row{1, "192.168.0.89", "192.168.0.1", 8, 0, 0, echo},
                    vector_row{1, "192.168.0.1", "192.168.0.89", 0, 8, 0, echo},
                    vector_row{1, "192.168.0.89", "192.168.0.1", 8, 0, 1,
                               "1:03g6IloqVBdcZlPyX8r0hgoE7kA="}));

// A type without an answer: the code counts, and the other direction is another conversation.
INSTANTIATE_TEST_SUITE_P(OneWayIcmp, CommunityId,
                         testing::Values(vector_row{1, "192.168.0.89", "192.168.0.1", 20, 0, 0,
                                                    "1:3o2RFccXzUgjl7zDpqmY7yJi8rI="},
                                         vector_row{1, "192.168.0.89", "192.168.0.1", 20, 1, 0,
                                                    "1:tz/fHIDUHs19NkixVVoOZywde+I="},
                                         vector_row{1, "192.168.0.1", "192.168.0.89", 20, 0, 0,
                                                    "1:xka8imJTHE0ZCHTDqMsnK5QKoh8="}));

INSTANTIATE_TEST_SUITE_P(
    Icmp6, CommunityId,
    testing::Values(vector_row{58, "fe80::200:86ff:fe05:80da", "fe80::260:97ff:fe07:69ea", 135, 0,
                               0, solicitation},
                    vector_row{58, "fe80::260:97ff:fe07:69ea", "fe80::200:86ff:fe05:80da", 136, 0,
                               0, solicitation},
                    vector_row{58, "fe80::200:86ff:fe05:80da", "fe80::260:97ff:fe07:69ea", 135, 0,
                               1, "1:kHa1FhMYIT6Ym2Vm2AOtoOARDzY="}));

INSTANTIATE_TEST_SUITE_P(OneWayIcmp6, CommunityId,
                         testing::Values(vector_row{58, "3ffe:507:0:1:260:97ff:fe07:69ea",
                                                    "3ffe:507:0:1:200:86ff:fe05:80da", 3, 0, 0,
                                                    "1:NdobDX8PQNJbAyfkWxhtL2Pqp5w="},
                                         vector_row{58, "3ffe:507:0:1:200:86ff:fe05:80da",
                                                    "3ffe:507:0:1:260:97ff:fe07:69ea", 3, 0, 0,
                                                    "1:/OGBt9BN1ofenrmSPWYicpij2Vc="}));

// Hashed without the two words that a record has in the place of ports; from Python's hashlib.
INSTANTIATE_TEST_SUITE_P(WithoutPorts, CommunityId,
                         testing::Values(vector_row{2, "10.1.1.1", "10.1.1.2", 17, 23, 0,
                                                    "1:Y0jLwrALJrm5qfPBvqEMf1uebHU="},
                                         vector_row{47, "2001:db8::2", "2001:db8::1", 17, 23, 0,
                                                    "1:RgLHDf67jKnjcEaiCVvPAVCpfSc="}));

}  // namespace
