#include "plugins/anonymizer_config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "kestrelexp/builtin.h"
#include "tests/support/lifelong.h"

namespace {

using namespace kestrel;

constexpr clock_source clocks = {[] { return uint64_t{0x1122334455667788}; },
                                 [] { return uint64_t{0}; }};

class AnonymizerParams : public testing::Test {
  protected:
    void SetUp() override { verbose_level = -1; }
    void TearDown() override { verbose_level = -1; }

    // What is said of a text that is refused; fails the test when the text is not.
    static std::string refusal(const char* text) {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(read_anonymizer_params(text).has_value());
        return testing::internal::GetCapturedStderr();
    }

    static anonymizer_state accepted(const char* text) {
        std::optional<anonymizer_state> state = read_anonymizer_params(text);
        if (!state) {
            ADD_FAILURE() << text;
            return {};
        }
        return std::move(*state);
    }
};

TEST_F(AnonymizerParams, ModeAndListAreMandatory) {
    EXPECT_EQ("Invalid anonymizer parameter: (null)\n", refusal(nullptr));
    EXPECT_EQ("Invalid anonymizer parameter: \n", refusal(""));
    EXPECT_EQ("Invalid anonymizer parameter: MASK\n", refusal("MASK"));
    EXPECT_EQ("Invalid anonymizer parameter: MASK:\n", refusal("MASK:"));
    EXPECT_EQ("Invalid anonymizer parameter: ::AES::\n", refusal("::AES::"));
}

TEST_F(AnonymizerParams, TheModeIsExact) {
    EXPECT_EQ("Unknown anonymizer mode: mask\n", refusal("mask:10.0.0.0/8"));
    EXPECT_EQ("Unknown anonymizer mode: AES128\n", refusal("AES128:ADDR"));
    EXPECT_EQ("Unknown anonymizer mode: AE\n", refusal("AE:ADDR"));
}

TEST_F(AnonymizerParams, InitSaysThatAllIsWell) {
    verbose_level = 0;
    std::string params = "MASK:10.0.0.0/8";
    testing::internal::CaptureStderr();
    EXPECT_NE(nullptr, kestrel_test::keep(anonymizer_init(params.data(), nullptr)));
    EXPECT_EQ("VERBOSE: 0:Anonymizer OK\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ("MASK:10.0.0.0/8", params);
}

TEST_F(AnonymizerParams, InitPassesARefusalOn) {
    verbose_level = 0;
    std::string params = "AES:ALL";
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, anonymizer_init(params.data(), nullptr));
    EXPECT_EQ("Unknown field: ALL\n", testing::internal::GetCapturedStderr());
}

// ---- MASK

TEST_F(AnonymizerParams, AListOfSeparatorsIsNone) {
    EXPECT_EQ("Bad formated address list\n", refusal("MASK:,,"));
}

TEST_F(AnonymizerParams, AnItemIsAddressAndBits) {
    EXPECT_EQ("Bad address format\n", refusal("MASK:10.0.0.0"));
    EXPECT_EQ("Bad address format\n", refusal("MASK:10.0.0.0/"));
    EXPECT_EQ("Bad address format\n", refusal("MASK:/8"));
    EXPECT_EQ("Bad address format\n", refusal("MASK:10.0.0.0/8,11.0.0.0"));
}

TEST_F(AnonymizerParams, AnAddressThatCannotBeResolvedIsRefused) {
    EXPECT_EQ("bad address: 10.0.0.256\n", refusal("MASK:10.0.0.256/8"));
    EXPECT_EQ("bad address: 2001:db8:::1\n", refusal("MASK:2001:db8:::1/32"));
    EXPECT_EQ("bad address: no.such.host.invalid\n", refusal("MASK:no.such.host.invalid/8"));
}

TEST_F(AnonymizerParams, APrefixLeavesAtLeastOneBit) {
    EXPECT_EQ("Bad bits number: 32\n", refusal("MASK:10.0.0.0/32"));
    EXPECT_EQ("Bad bits number: 128\n", refusal("MASK:2001:db8::/128"));
    EXPECT_EQ("Bad bits number: -1\n", refusal("MASK:10.0.0.0/-1"));
    EXPECT_EQ("Bad bits number: 4294967296\n", refusal("MASK:10.0.0.0/4294967296"));
    EXPECT_EQ("Bad bits number: 99999999999999999999x\n",
              refusal("MASK:10.0.0.0/99999999999999999999x"));
}

TEST_F(AnonymizerParams, AMaskHasPositionsInTheOrderOfItsItems) {
    const anonymizer_state state = accepted("MASK:10.1.2.3/31,,2001:db8::/127,192.0.2.0/0/9");
    EXPECT_EQ(anonymizer_mode::mask, state.mode);
    ASSERT_EQ(3u, state.prefixes4.size());
    EXPECT_EQ(0x0A010203u, state.prefixes4[0]->address);
    EXPECT_EQ(1u, state.prefixes4[0]->keep);
    EXPECT_FALSE(state.prefixes4[1].has_value());
    EXPECT_EQ(0xC0000200u, state.prefixes4[2]->address);
    EXPECT_EQ(32u, state.prefixes4[2]->keep);
}

TEST_F(AnonymizerParams, BitsThatAreNoNumberAreNone) {
    EXPECT_EQ(32u, accepted("MASK:10.0.0.0/x").prefixes4.at(0)->keep);
    EXPECT_EQ(24u, accepted("MASK:10.0.0.0/8x").prefixes4.at(0)->keep);
}

TEST_F(AnonymizerParams, AHostNameStandsForItsAddress) {
    EXPECT_EQ(1u, accepted("MASK:localhost/8").prefixes4.size());
}

TEST_F(AnonymizerParams, Ipv6AddressesKeepTheirColons) {
    const anonymizer_state state = accepted("::MASK:2001:db8:1:2:3:4:5:6/64");
    ASSERT_EQ(1u, state.prefixes6.size());
    constexpr uint32_t expected[] = {0x00050006, 0x00030004, 0x00010002, 0x20010DB8};
    EXPECT_TRUE(std::ranges::equal(expected, state.prefixes6[0].words));
    EXPECT_EQ(64u, state.prefixes6[0].keep);
}

TEST_F(AnonymizerParams, AnIpv6AddressMayBeginWithColons) {
    EXPECT_EQ(1u, accepted("MASK:::1/64").prefixes6.at(0).words[0]);
    EXPECT_EQ(0x0A000000u, accepted("MASK:::ffff:10.0.0.0/104").prefixes6.at(0).words[0]);
    EXPECT_EQ(1u, accepted("MASK:10.0.0.0/8,::1/64").prefixes6.at(0).words[0]);
}

TEST_F(AnonymizerParams, EmptyPiecesInFrontOfAListAreDropped) {
    for (const char* text :
         {"MASK::10.0.0.0/8", "MASK:::10.0.0.0/8", "::MASK::::10.0.0.0/8", "MASK:::localhost/8"}) {
        const anonymizer_state state = accepted(text);
        ASSERT_EQ(1u, state.prefixes4.size()) << text;
        EXPECT_TRUE(state.prefixes4[0].has_value()) << text;
    }
    EXPECT_EQ(0x20010DB8u, accepted("MASK::2001:db8::/32").prefixes6.at(0).words[3]);
}

TEST_F(AnonymizerParams, AListEndsWhereTheNextPieceBegins) {
    for (const char* text : {"MASK:10.0.0.0/8:junk", "MASK:10.0.0.0/8:junk,11.0.0.0/8",
                             "MASK:10.0.0.0/8:", "MASK:10.0.0.0/8,:junk", "MASK:10.0.0.0/8,:"}) {
        const anonymizer_state state = accepted(text);
        ASSERT_EQ(1u, state.prefixes4.size()) << text;
        EXPECT_EQ(0x0A000000u, state.prefixes4[0]->address) << text;
        EXPECT_EQ(24u, state.prefixes4[0]->keep) << text;
    }
    EXPECT_EQ(2u, accepted("MASK:2001:db8::/32,10.0.0.0/8:11.0.0.0/8,x").prefixes4.size());
}

// ---- AES

TEST_F(AnonymizerParams, EachFieldNameStandsForItsFields) {
    EXPECT_EQ(1u, accepted("AES:SRCADDR").fields);
    EXPECT_EQ(2u, accepted("AES:DSTADDR").fields);
    EXPECT_EQ(3u, accepted("AES:ADDR").fields);
    EXPECT_EQ(4u, accepted("AES:SRCPORT").fields);
    EXPECT_EQ(8u, accepted("AES:DSTPORT").fields);
    EXPECT_EQ(12u, accepted("AES:PORT").fields);
    EXPECT_EQ(15u, accepted("AES:PORT,,ADDR,SRCADDR").fields);
}

TEST_F(AnonymizerParams, AFieldNameIsExact) {
    EXPECT_EQ("Unknown field: ALL\n", refusal("AES:ALL"));
    EXPECT_EQ("Unknown field: addr\n", refusal("AES:addr"));
    EXPECT_EQ("Unknown field: ADD\n", refusal("AES:PORT,ADD"));
    EXPECT_EQ("Unknown field: ADDRS\n", refusal("AES:ADDRS:0123456789abcdef"));
}

TEST_F(AnonymizerParams, AListOfNoFieldsIsRefused) {
    EXPECT_EQ("Blank or bad fields format\n", refusal("AES:,"));
    EXPECT_EQ("Blank or bad fields format\n", refusal("AES:,:0123456789abcdef"));
}

TEST_F(AnonymizerParams, AKeyHasSixteenCharacters) {
    constexpr const char* message = "AES key must be exactly 16 characters length\n";
    EXPECT_EQ(message, refusal("AES:ADDR:short"));
    EXPECT_EQ(message, refusal("AES:ADDR:0123456789abcde"));
    EXPECT_EQ(message, refusal("AES:ADDR:0123456789abcdefg"));
    EXPECT_EQ(anonymizer_mode::aes, accepted("AES:ADDR:0123456789abcdef").mode);
}

TEST_F(AnonymizerParams, AKeyIsLookedAtBeforeTheFields) {
    EXPECT_EQ("AES key must be exactly 16 characters length\n", refusal("AES:ALL:short"));
    EXPECT_EQ("AES key must be exactly 16 characters length\n", refusal("AES:,:short"));
}

TEST_F(AnonymizerParams, AKeyEndsAtTheNextColonAndTheRestIsIgnored) {
    EXPECT_EQ("AES key must be exactly 16 characters length\n",
              refusal("AES:ADDR:01234567:9abcdef"));
    EXPECT_EQ(3u, accepted("AES:ADDR:0123456789abcdef:more:still").fields);
}

TEST_F(AnonymizerParams, AKeyOfTheRunHoldsTimeAndProcess) {
    set_clock_source(&clocks);
    uint8_t key[anonymizer_key_size];
    ASSERT_TRUE(make_anonymizer_key(key));
    set_clock_source(nullptr);
    constexpr uint8_t time[] = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    EXPECT_EQ(0, std::memcmp(time, key, 8));
    const pid_t process = getpid();
    EXPECT_EQ(0, std::memcmp(&process, key + 10, 4));
}

// The bytes 8, 9, 14 and 15; that they all come out alike twice in a row happens once in 2^32.
TEST_F(AnonymizerParams, TheRestOfAKeyOfTheRunIsRandom) {
    set_clock_source(&clocks);
    uint8_t one[anonymizer_key_size];
    uint8_t two[anonymizer_key_size];
    ASSERT_TRUE(make_anonymizer_key(one));
    ASSERT_TRUE(make_anonymizer_key(two));
    set_clock_source(nullptr);
    EXPECT_TRUE(std::memcmp(one + 8, two + 8, 2) != 0 || std::memcmp(one + 14, two + 14, 2) != 0);
}

}  // namespace
