#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <cctype>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/model/parser_check.h"
#include "tests/support/source_tree.h"

namespace {

using namespace kestrel_model;

struct capture {
    const char* name;
    size_t frames;
};

void PrintTo(const capture& c, std::ostream* out) {
    *out << c.name;
}

constexpr capture captures[] = {
    {"ndpi-4in4tunnel.pcap", 5},
    {"ndpi-6in4tunnel.pcap", 127},
    {"ndpi-android.pcap", 500},
    {"ndpi-badpackets.pcap", 93},
    {"ndpi-bfd.pcap", 11},
    {"ndpi-dnscrypt-v1-and-resolver-pings.pcap", 608},
    {"ndpi-fuzz-2006-09-29-28586.pcap", 131},
    {"ndpi-http_ipv6.pcap", 193},
    {"ndpi-icmp-tunnel.pcap", 961},
    {"ndpi-ip_fragmented_garbage.pcap", 1252},
    {"ndpi-sctp.cap", 4},
    {"ndpi-soap.pcap", 20},
    {"ndpi-synscan.pcap", 2011},
    {"ndpi-thrift.pcap", 172},
    {"ndpi-ultrasurf.pcap", 333},
    {"pcpp-MplsPackets.pcap", 2},
    {"pcpp-VlanPackets.pcap", 26},
    {"pcpp-igmpv3.pcap", 2},
    {"pcpp-ip6_fragments.pcap", 36},
    {"pcpp-ipv4-options.pcap", 7},
    {"pcpp-nanosecs_big_endian.pcap", 10},
    {"tcpdump-802.1ad_QinQ.pcap", 2},
    {"tcpdump-OSPFv3_with_AH.pcap", 61},
    {"tcpdump-afs.pcap", 601},
    {"tcpdump-bigtcp-ipv4.pcap", 1},
    {"tcpdump-dccp_partial_csum_v4_longer.pcap", 15},
    {"tcpdump-geneve.pcap", 39},
    {"tcpdump-gre-heapoverflow-1.pcap", 2},
    {"tcpdump-icmpv6.pcap", 5},
    {"tcpdump-igmpv3-queries.pcap", 6},
    {"tcpdump-ipv6-bad-version.pcap", 4},
    {"tcpdump-ipv6-routing-header.pcap", 4},
    {"tcpdump-ipv6_invalid_length.pcap", 1},
    {"tcpdump-isup.pcap", 6},
    {"tcpdump-kday3.pcap", 9},
    {"tcpdump-ldp-common-session.pcap", 22},
    {"tcpdump-mpls-label-heapoverflow.pcap", 1},
    {"tcpdump-mpls-over-udp.pcap", 2},
    {"tcpdump-pim-packet-assortment.pcap", 245},
    {"tcpdump-print-flags.pcap", 10},
    {"tcpdump-tcp_eight_lowest_weight_flags_set.pcap", 1},
    {"tcpdump-various_gre.pcap", 100},
    {"zeek-chksums_ip6-hoa-udp-good-chksum.pcap", 1},
    {"zeek-chksums_ip6-route0-tcp-good-chksum.pcap", 1},
    {"zeek-cisco-fabric-path.pcap", 130},
    {"zeek-communityid_icmp6.pcap", 49},
    {"zeek-communityid_sctp.pcap", 74},
    {"zeek-icmp_dot1q.pcap", 15},
    {"zeek-igmp_igmp.pcap", 12},
    {"zeek-ip6_esp.pcap", 121},
    {"zeek-ipv4_fragmented-1.pcap", 3},
    {"zeek-ipv4_fragmented-4.pcap", 6},
    {"zeek-ipv6-http-atomic-frag.pcap", 38},
    {"zeek-mixed-vlan-mpls.pcap", 47},
    {"zeek-mobile-ipv6_mip6_bu.pcap", 1},
    {"zeek-modbus_fuzz-1011.pcap", 6},
    {"zeek-nmap-vsn.pcap", 547},
    {"zeek-tcp_truncated-header.pcap", 24},
    {"zeek-trunc_ip4-trunc.pcap", 1},
    {"zeek-trunc_ip6-trunc.pcap", 1},
    {"zeek-trunc_mpls-6in6-broken.pcap", 1811},
    {"zeek-trunc_trunc-hdr.pcap", 1},
    {"zeek-tunnels_Teredo.pcap", 78},
    {"zeek-tunnels_gre-sample.pcap", 40},
    {"zeek-tunnels_gre-within-gre.pcap", 628},
    {"zeek-tunnels_gtp_gtp1_gn_normal_incl_fragmentation.pcap", 108},
    {"zeek-tunnels_vxlan.pcap", 10},
    {"zeek-unknown-ip-short-payload.pcap", 4},
    {"zeek-vlan-collisions.pcap", 42},
    {"zeek-wikipedia.pcap", 136},
};

constexpr uint32_t masks[] = {0x077, 0x000, 0x1FF, 0x180, 0x00F, 0x040};

using frames = std::vector<std::vector<uint8_t>>;

frames read_capture(const std::string& path) {
    char error[PCAP_ERRBUF_SIZE];
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> file(pcap_open_offline(path.c_str(), error),
                                                          pcap_close);
    frames result;
    if (!file) {
        ADD_FAILURE() << error;
        return result;
    }
    EXPECT_EQ(DLT_EN10MB, pcap_datalink(file.get()));
    pcap_pkthdr* header;
    const u_char* data;
    while (pcap_next_ex(file.get(), &header, &data) == 1)
        result.emplace_back(data, data + header->caplen);
    return result;
}

class Capture : public testing::TestWithParam<capture> {};

TEST_P(Capture, ParsesAsTheModelSays) {
    const frames all = read_capture(
        kestrel_test::in_source_tree("tests/data/captures/" + std::string(GetParam().name)));
    ASSERT_EQ(GetParam().frames, all.size());
    check_settings settings;
    settings.blocks = block_vlan | block_mpls | block_mac;
    for (size_t n = 0; n < all.size(); ++n) {
        for (const uint32_t mask : masks) {
            settings.mask = mask;
            settings.through_reader = (n & 1) != 0;
            ASSERT_EQ("", compare_parsers(all[n], settings))
                << "frame " << n + 1 << " mask " << mask << "\n"
                << hex_of(all[n]);
        }
    }
}

std::string test_name(const testing::TestParamInfo<capture>& test) {
    std::string name;
    for (const char c : std::string(test.param.name))
        name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Real, Capture, testing::ValuesIn(captures), test_name);

}  // namespace
