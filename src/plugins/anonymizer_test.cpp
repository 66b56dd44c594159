#include "plugins/anonymizer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/record.h"
#include "tests/support/lifelong.h"

namespace {

using namespace kestrel;
using kestrel_test::keep;

constexpr uint8_t icmp = 1, tcp = 6, udp = 17, icmp6 = 58, sctp = 132;

uint64_t wall_ns;
constexpr clock_source clocks = {[] { return wall_ns; }, [] { return uint64_t{0}; }};

using address6 = std::array<uint8_t, 16>;

class Anonymizer : public testing::Test {
  protected:
    void SetUp() override {
        verbose_level = -1;
        wall_ns = 0;
        set_clock_source(&clocks);
    }
    void TearDown() override { set_clock_source(nullptr); }

    static anonymizer_state* make(std::string params) {
        return keep(static_cast<anonymizer_state*>(anonymizer_init(params.data(), nullptr)));
    }

    // 192.168.1.7, port 4660, to 10.0.0.1, port 443.
    static flow_record ipv4_flow(uint8_t protocol) {
        flow_record flow;
        std::memset(&flow, 0, sizeof flow);  // with what lies between its fields: see same()
        flow.l3protocol = 4;
        flow.l4protocol = protocol;
        flow.ipv4.srcipv4 = 0xC0A80107;
        flow.ipv4.dstipv4 = 0x0A000001;
        flow.ipv4.tos = 0xB8;
        flow.srcport = 4660;
        flow.dstport = 443;
        return flow;
    }

    // 2001:db8::1 to 2001:db8::2, same ports.
    static flow_record ipv6_flow(uint8_t protocol) {
        flow_record flow = ipv4_flow(protocol);
        flow.l3protocol = 6;
        flow.ipv6 = {{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB8, 0x0D, 0x01, 0x20},
                     {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB8, 0x0D, 0x01, 0x20}};
        return flow;
    }

    static flow_record after(anonymizer_state* state, flow_record flow) {
        EXPECT_EQ(0, anonymizer_process(state, &flow));
        return flow;
    }

    static bool same(const flow_record& a, const flow_record& b) {
        return std::memcmp(&a, &b, sizeof a) == 0;
    }

    static address6 source(const flow_record& flow) { return std::to_array(flow.ipv6.srcipv6); }
    static address6 destination(const flow_record& flow) {
        return std::to_array(flow.ipv6.dstipv6);
    }
};

TEST_F(Anonymizer, DescribesItself) {
    EXPECT_STREQ("anonymizer", anonymizer_desc()->name);
    EXPECT_STREQ(
        "Anonymizer hide some flow fields using masking or AES128 cipher to make anonymized flow "
        "data.\nParameter is mode with it's parameters.\nAnonymizer modes are:\n "
        "MASK:addr1/mask[,addr2/mask,...addrN/mask]\n AES:field1[,field2,...,fieldN][:KEY]\n "
        "(fields:ALL (all fields), SRCADDR, DSTADDR, ADDR (both address), SRCPORT, DSTPORT, PORT "
        "(both ports))",
        anonymizer_desc()->description);
    EXPECT_EQ(0, anonymizer_desc()->data_size);
    EXPECT_EQ(FILTER_WHOLE_PARAMS, anonymizer_desc()->flags);
}

// ---- MASK

using AnonymizerMask = Anonymizer;

TEST_F(AnonymizerMask, PutsThePrefixInFrontOfBothAddresses) {
    const flow_record flow = after(make("MASK:10.0.0.0/8"), ipv4_flow(tcp));
    EXPECT_EQ(0x0AA80107u, flow.ipv4.srcipv4);  // 10.168.1.7
    EXPECT_EQ(0x0A000001u, flow.ipv4.dstipv4);
}

TEST_F(AnonymizerMask, ChangesNothingButAddresses) {
    flow_record expected = ipv4_flow(tcp);
    expected.ipv4.srcipv4 = 0x0AA80107;
    EXPECT_TRUE(same(expected, after(make("MASK:10.0.0.0/8"), ipv4_flow(tcp))));
}

TEST_F(AnonymizerMask, APrefixOfNoBitsKeepsNothing) {
    const flow_record flow = after(make("MASK:10.0.0.1/0"), ipv4_flow(udp));
    EXPECT_EQ(0x0A000001u, flow.ipv4.srcipv4);
    EXPECT_EQ(0x0A000001u, flow.ipv4.dstipv4);
}

TEST_F(AnonymizerMask, TheLongestPrefixKeepsOneBit) {
    const flow_record flow = after(make("MASK:172.16.5.6/31"), ipv4_flow(udp));
    EXPECT_EQ(0xAC100507u, flow.ipv4.srcipv4);
    EXPECT_EQ(0xAC100507u, flow.ipv4.dstipv4);
}

TEST_F(AnonymizerMask, HostBitsOfThePrefixShowThrough) {
    const flow_record flow = after(make("MASK:10.0.0.8/8"), ipv4_flow(udp));
    EXPECT_EQ(0x0AA8010Fu, flow.ipv4.srcipv4);  // .7 and .8
    EXPECT_EQ(0x0A000009u, flow.ipv4.dstipv4);
}

TEST_F(AnonymizerMask, TheClockDrawsOnePrefixForBothAddresses) {
    anonymizer_state* state = make("MASK:10.0.0.0/8,20.0.0.0/8,30.0.0.0/8");
    constexpr uint32_t expected[] = {0x0A, 0x14, 0x1E, 0x0A};
    for (uint32_t us = 0; us < 4; ++us) {
        wall_ns = us * 1000;
        const flow_record flow = after(state, ipv4_flow(udp));
        EXPECT_EQ(expected[us] << 24 | 0xA80107, flow.ipv4.srcipv4) << us;
        EXPECT_EQ(expected[us] << 24 | 1, flow.ipv4.dstipv4) << us;
    }
}

TEST_F(AnonymizerMask, LeavesFlowsOfOtherVersionsAlone) {
    flow_record flow = ipv4_flow(udp);
    flow.l3protocol = 0;
    EXPECT_TRUE(same(flow, after(make("MASK:10.0.0.0/8"), flow)));
}

TEST_F(AnonymizerMask, AnIpv6PrefixIsAcceptedButMasksNothing) {
    anonymizer_state* state = make("MASK:2001:db8::/32");
    ASSERT_NE(nullptr, state);
    EXPECT_TRUE(same(ipv6_flow(tcp), after(state, ipv6_flow(tcp))));
    EXPECT_TRUE(same(ipv4_flow(tcp), after(state, ipv4_flow(tcp))));
}

// Positions: 0 IPv6, 1 10/8, 2 IPv6, 3 20/8.
TEST_F(AnonymizerMask, ADrawOfAnIpv6PrefixLeavesAnIpv4FlowUnchanged) {
    anonymizer_state* state = make("MASK:2001:db8::/32,10.0.0.0/8,2001:db9::/32,20.0.0.0/8");
    constexpr uint32_t expected[] = {0xC0A80107, 0x0AA80107, 0xC0A80107, 0x14A80107};
    for (uint32_t us = 0; us < 4; ++us) {
        wall_ns = us * 1000;
        EXPECT_EQ(expected[us], after(state, ipv4_flow(udp)).ipv4.srcipv4) << us;
    }
}

TEST_F(AnonymizerMask, EveryIpv6PrefixIsWrittenToTheFirstPlace) {
    const anonymizer_state* state = make("MASK:2001:db8::/32,2001:db9::1/64");
    EXPECT_EQ(0u, state->count6);
    ASSERT_EQ(1u, state->prefixes6.size());
    EXPECT_EQ(0x20010DB9u, state->prefixes6[0].words[3]);
    EXPECT_EQ(1u, state->prefixes6[0].words[0]);
    EXPECT_EQ(64u, state->prefixes6[0].keep);
    EXPECT_EQ(2u, state->prefixes4.size());
}

// An address of the bytes 10 11 ... 1F, under a prefix whose words are A0..., B0..., C0..., D0....
address6 masked6(uint32_t keep) {
    uint8_t address[16];
    for (uint8_t i = 0; i < 16; ++i)
        address[i] = static_cast<uint8_t>(0x10 + i);
    mask_address6(address, {{0xA0000000, 0xB0000000, 0xC0000000, 0xD0000000}, keep});
    return std::to_array(address);
}

TEST_F(AnonymizerMask, Ipv6MixesOneWordByTheBitsKept) {
    // Words of the address, from word 0: 13121110 17161514 1B1A1918 1F1E1D1C.
    EXPECT_EQ((address6{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17,  //
                        0x18, 0x19, 0x1A, 0x1B, 0x1C, 0, 0, 0xD0}),
              masked6(8));
    EXPECT_EQ((address6{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17,  //
                        0, 0, 0, 0xC0, 0, 0, 0, 0xD0}),
              masked6(32));
    EXPECT_EQ((address6{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17,  //
                        0x18, 0, 0, 0xC0, 0, 0, 0, 0xD0}),
              masked6(40));
    EXPECT_EQ((address6{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0, 0xB0,  //
                        0, 0, 0, 0xC0, 0, 0, 0, 0xD0}),
              masked6(80));
    EXPECT_EQ((address6{0x10, 0x11, 0x12, 0xB3, 0, 0, 0, 0xB0,  // 29 bits: 13121110 | A0000000
                        0, 0, 0, 0xC0, 0, 0, 0, 0xD0}),
              masked6(125));
    EXPECT_EQ((address6{0, 0, 0, 0xA0, 0, 0, 0, 0xB0, 0, 0, 0, 0xC0, 0, 0, 0, 0xD0}), masked6(96));
    EXPECT_EQ((address6{0, 0, 0, 0xA0, 0, 0, 0, 0xB0, 0, 0, 0, 0xC0, 0, 0, 0, 0xD0}), masked6(128));
}

TEST_F(AnonymizerMask, Ipv6WouldBeMaskedWereAPrefixInUse) {
    anonymizer_state* state = make("MASK:2001:db9::/32");
    state->count6 = 1;
    const flow_record flow = after(state, ipv6_flow(tcp));
    const address6 expected = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB9, 0x0D, 0x01, 0x20};
    EXPECT_EQ(expected, source(flow));
    EXPECT_EQ(expected, destination(flow));
    EXPECT_EQ(4660, flow.srcport);
}

// ---- AES. Expected values: openssl enc -aes-128-ecb -nopad with the key 0123456789abcdef over the
// block that the comment shows.

class AnonymizerAes : public Anonymizer {
  protected:
    static constexpr const char* key = ":0123456789abcdef";

    static flow_record encrypted(const std::string& fields, const flow_record& flow) {
        return after(make("AES:" + fields + key), flow);
    }
};

// 0701a8c0 0100000a 00000000 00000000 -> d95730b6 e18a7c84 ...
TEST_F(AnonymizerAes, BothAddressesAreEncryptedTogether) {
    const flow_record flow = encrypted("ADDR", ipv4_flow(tcp));
    EXPECT_EQ(0xB63057D9u, flow.ipv4.srcipv4);
    EXPECT_EQ(0x847C8AE1u, flow.ipv4.dstipv4);
    EXPECT_EQ(4660, flow.srcport);
    EXPECT_EQ(443, flow.dstport);
}

// 0701a8c0 00000000 00000000 00000000 -> dfe7e3d3 ...
TEST_F(AnonymizerAes, ASourceAddressAlone) {
    const flow_record flow = encrypted("SRCADDR", ipv4_flow(tcp));
    EXPECT_EQ(0xD3E3E7DFu, flow.ipv4.srcipv4);
    EXPECT_EQ(0x0A000001u, flow.ipv4.dstipv4);
}

// 00000000 0100000a 00000000 00000000 -> 3bb7bbc8 b517cbe6 ...
TEST_F(AnonymizerAes, ADestinationAddressAlone) {
    const flow_record flow = encrypted("DSTADDR", ipv4_flow(tcp));
    EXPECT_EQ(0xC0A80107u, flow.ipv4.srcipv4);
    EXPECT_EQ(0xE6CB17B5u, flow.ipv4.dstipv4);
}

// 01000000 00000000 00000000 b80d0120
constexpr address6 source6 = {0x7A, 0x12, 0x34, 0x53, 0x79, 0xC5, 0xBB, 0x36,
                              0xBA, 0x6F, 0xBF, 0xF7, 0xB2, 0x68, 0x22, 0x39};
// 02000000 00000000 00000000 b80d0120
constexpr address6 destination6 = {0x22, 0x3D, 0xE9, 0xF2, 0x4F, 0xD2, 0x00, 0xD6,
                                   0x7C, 0x24, 0xF8, 0x0B, 0xBA, 0xBC, 0xFE, 0x43};

TEST_F(AnonymizerAes, Ipv6AddressesAreBlocksOfTheirOwn) {
    const flow_record flow = encrypted("ADDR", ipv6_flow(tcp));
    EXPECT_EQ(source6, source(flow));
    EXPECT_EQ(destination6, destination(flow));
    EXPECT_EQ(4660, flow.srcport);
    EXPECT_EQ(443, flow.dstport);
}

TEST_F(AnonymizerAes, AnIpv6SourceAlone) {
    const flow_record flow = encrypted("SRCADDR", ipv6_flow(tcp));
    EXPECT_EQ(source6, source(flow));
    EXPECT_EQ(destination(ipv6_flow(tcp)), destination(flow));
}

TEST_F(AnonymizerAes, AnIpv6DestinationAlone) {
    const flow_record flow = encrypted("DSTADDR", ipv6_flow(tcp));
    EXPECT_EQ(source(ipv6_flow(tcp)), source(flow));
    EXPECT_EQ(destination6, destination(flow));
}

// 00000000 34120000 0000bb01 00000000 -> 2a376fb9 2d7744fd 85aa08df ...
TEST_F(AnonymizerAes, BothPortsAreEncryptedTogether) {
    for (const uint8_t protocol : {tcp, udp, sctp}) {
        const flow_record flow = encrypted("PORT", ipv4_flow(protocol));
        EXPECT_EQ(0x772D, flow.srcport);
        EXPECT_EQ(0xDF08, flow.dstport);
        EXPECT_EQ(0xC0A80107u, flow.ipv4.srcipv4);
        EXPECT_EQ(0x0A000001u, flow.ipv4.dstipv4);
    }
}

// 00000000 34120000 00000000 00000000 -> f0edd211 01e8...
TEST_F(AnonymizerAes, ASourcePortAlone) {
    const flow_record flow = encrypted("SRCPORT", ipv4_flow(udp));
    EXPECT_EQ(0xE801, flow.srcport);
    EXPECT_EQ(443, flow.dstport);
}

// 00000000 00000000 0000bb01 00000000 -> e5188419 b43ad8ed ef9d0b5f ...
TEST_F(AnonymizerAes, ADestinationPortAlone) {
    const flow_record flow = encrypted("DSTPORT", ipv4_flow(udp));
    EXPECT_EQ(4660, flow.srcport);
    EXPECT_EQ(0x5F0B, flow.dstport);
}

TEST_F(AnonymizerAes, PortsOfIpv6FlowsAreEncryptedAlike) {
    const flow_record flow = encrypted("PORT", ipv6_flow(udp));
    EXPECT_EQ(0x772D, flow.srcport);
    EXPECT_EQ(0xDF08, flow.dstport);
    EXPECT_EQ(source(ipv6_flow(udp)), source(flow));
}

// Every combination of fields is that of its address part and its port part.
TEST_F(AnonymizerAes, EveryCombinationOfFields) {
    constexpr const char* names[] = {"SRCADDR", "DSTADDR", "SRCPORT", "DSTPORT"};
    // By the two low bits: none, source, destination, both.
    constexpr uint32_t sources[] = {0xC0A80107, 0xD3E3E7DF, 0xC0A80107, 0xB63057D9};
    constexpr uint32_t destinations[] = {0x0A000001, 0x0A000001, 0xE6CB17B5, 0x847C8AE1};
    constexpr uint16_t source_ports[] = {4660, 0xE801, 4660, 0x772D};
    constexpr uint16_t destination_ports[] = {443, 443, 0x5F0B, 0xDF08};
    for (unsigned chosen = 1; chosen < 16; ++chosen) {
        std::string fields;
        for (unsigned i = 0; i < 4; ++i)
            if ((chosen >> i & 1) != 0)
                fields += (fields.empty() ? "" : ",") + std::string(names[i]);
        const flow_record four = encrypted(fields, ipv4_flow(tcp));
        EXPECT_EQ(sources[chosen & 3], four.ipv4.srcipv4) << fields;
        EXPECT_EQ(destinations[chosen & 3], four.ipv4.dstipv4) << fields;
        EXPECT_EQ(source_ports[chosen >> 2], four.srcport) << fields;
        EXPECT_EQ(destination_ports[chosen >> 2], four.dstport) << fields;

        const flow_record six = encrypted(fields, ipv6_flow(tcp));
        EXPECT_EQ((chosen & 1) != 0 ? source6 : source(ipv6_flow(tcp)), source(six)) << fields;
        EXPECT_EQ((chosen & 2) != 0 ? destination6 : destination(ipv6_flow(tcp)), destination(six))
            << fields;
        EXPECT_EQ(source_ports[chosen >> 2], six.srcport) << fields;
        EXPECT_EQ(destination_ports[chosen >> 2], six.dstport) << fields;
    }
}

TEST_F(AnonymizerAes, ChangesNothingButTheChosenFields) {
    flow_record expected = ipv4_flow(tcp);
    expected.ipv4.srcipv4 = 0xB63057D9;
    expected.ipv4.dstipv4 = 0x847C8AE1;
    expected.srcport = 0x772D;
    expected.dstport = 0xDF08;
    EXPECT_TRUE(same(expected, encrypted("ADDR,PORT", ipv4_flow(tcp))));
}

TEST_F(AnonymizerAes, FlowsOfOtherVersionsKeepEvenTheirPorts) {
    flow_record flow = ipv4_flow(tcp);
    flow.l3protocol = 5;
    EXPECT_TRUE(same(flow, encrypted("ADDR,PORT", flow)));
}

TEST_F(AnonymizerAes, OnlyProtocolsWithPortsHaveThemEncrypted) {
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        if (protocol == tcp || protocol == udp || protocol == sctp)
            continue;
        const flow_record flow = ipv4_flow(static_cast<uint8_t>(protocol));
        EXPECT_TRUE(same(flow, encrypted("PORT", flow))) << protocol;
    }
    EXPECT_TRUE(same(ipv6_flow(icmp6), encrypted("PORT", ipv6_flow(icmp6))));
}

TEST_F(AnonymizerAes, AKeyOfTheRunLeavesAnIcmpFlowUnchanged) {
    EXPECT_TRUE(same(ipv4_flow(icmp), after(make("AES:PORT"), ipv4_flow(icmp))));
}

TEST_F(AnonymizerAes, AKeyOfTheRunGivesEqualPortsEqualValues) {
    anonymizer_state* state = make("AES:PORT");
    const flow_record first = after(state, ipv4_flow(tcp));
    // A key that happens to keep both ports comes once in four billion runs.
    EXPECT_FALSE(first.srcport == 4660 && first.dstport == 443);
    flow_record other = ipv4_flow(udp);
    other.srcport = 1;
    (void)after(state, other);
    const flow_record again = after(state, ipv4_flow(tcp));
    EXPECT_EQ(first.srcport, again.srcport);
    EXPECT_EQ(first.dstport, again.dstport);
}

TEST_F(AnonymizerAes, KeysOfTheRunDifferBetweenInstancesOfOneMoment) {
    const address6 one = source(after(make("AES:ADDR"), ipv6_flow(tcp)));
    const address6 two = source(after(make("AES:ADDR"), ipv6_flow(tcp)));
    EXPECT_NE(one, two);
}

// ---- What only a broken instance brings about

using AnonymizerDeath = Anonymizer;

TEST_F(AnonymizerDeath, ACipherThatFailsEndsTheProgram) {
    anonymizer_state* state = make("AES:ADDR");
    gcry_cipher_hd_t without_key = nullptr;
    ASSERT_EQ(0u, gcry_cipher_open(&without_key, GCRY_CIPHER_AES128, GCRY_CIPHER_MODE_ECB, 0));
    state->cipher.reset(without_key);
    flow_record flow = ipv4_flow(tcp);
    EXPECT_EXIT(anonymizer_process(state, &flow), testing::ExitedWithCode(245),
                "libgcrypt error. exiting");
}

TEST_F(AnonymizerDeath, AModeThatIsNoneEndsTheProgram) {
    anonymizer_state* state = make("MASK:10.0.0.0/8");
    state->mode = static_cast<anonymizer_mode>(3);
    flow_record flow = ipv4_flow(tcp);
    EXPECT_EXIT(anonymizer_process(state, &flow), testing::ExitedWithCode(255),
                "Internal anonymizer error");
}

}  // namespace
