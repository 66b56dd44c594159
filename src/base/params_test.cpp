#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kestrelexp/service.h"

namespace {

using strings = std::vector<std::string>;

strings split(std::string text, char separator) {
    char** pieces = char_split(text.data(), separator, 1);
    strings result;
    for (char** piece = pieces; *piece; ++piece)
        result.emplace_back(*piece);
    std::free(pieces[0]);
    std::free(pieces);
    return result;
}

TEST(CharSplit, PiecesComeInOrder) {
    EXPECT_EQ((strings{"a", "bc", "d"}), split("a:bc:d", ':'));
}

TEST(CharSplit, EmptyPiecesAreDropped) {
    EXPECT_EQ((strings{"a", "b"}), split("a::b", ':'));
    EXPECT_EQ((strings{"a"}), split(":a", ':'));
    EXPECT_EQ((strings{"a"}), split("a:", ':'));
    EXPECT_EQ((strings{"a", "b"}), split(":::a:::b:::", ':'));
}

TEST(CharSplit, TextWithoutPiecesIsEmpty) {
    EXPECT_EQ(strings{}, split("", ':'));
    EXPECT_EQ(strings{}, split(":::", ':'));
}

TEST(CharSplit, TextWithoutSeparatorIsOnePiece) {
    EXPECT_EQ((strings{"abc"}), split("abc", ':'));
}

TEST(CharSplit, NullTextIsEmpty) {
    char** pieces = char_split(nullptr, ',', 1);
    EXPECT_EQ(nullptr, pieces[0]);
    std::free(pieces);
}

TEST(CharSplit, CopyLeavesTheTextAlone) {
    char text[] = "a,,b";
    char** pieces = char_split(text, ',', 1);
    EXPECT_STREQ("a", pieces[0]);
    EXPECT_STREQ("b", pieces[1]);
    EXPECT_EQ(nullptr, pieces[2]);
    EXPECT_STREQ("a,,b", text);
    std::free(pieces[0]);
    std::free(pieces);
}

TEST(CharSplit, WithoutCopyTheTextIsCut) {
    char text[] = "=a=b";
    char** pieces = char_split(text, '=', 0);
    EXPECT_EQ(text + 1, pieces[0]);
    EXPECT_EQ(text + 3, pieces[1]);
    EXPECT_EQ(nullptr, pieces[2]);
    EXPECT_EQ(std::string("\0a\0b", 4), std::string(text, 4));
    std::free(pieces);
}

TEST(CharSplit, SeparatorZeroSplitsNothing) {
    EXPECT_EQ((strings{"a,b"}), split("a,b", '\0'));
}

class ConfigSetValues : public testing::Test {
  protected:
    void TearDown() override { verbose_level = -1; }

    int apply(const char* params) {
        std::string text = params;
        testing::internal::CaptureStderr();
        const int result = config_set_values(text.data(), table_);
        messages_ = testing::internal::GetCapturedStderr();
        // Text values are lent for life; this keeps the leak checker from calling them lost.
        static auto* lent = new std::vector<const char*>;
        lent->push_back(host_);
        return result;
    }

    char* host_ = nullptr;
    int32_t port_ = -5;
    int32_t rate_ = -5;
    const config_setting table_[4] = {
        {"host", &host_, CONFIG_STRING},
        {"port", &port_, CONFIG_INTEGER},
        {"rate", &rate_, CONFIG_INTEGER},
        {nullptr, nullptr, 0},
    };
    std::string messages_;
};

TEST_F(ConfigSetValues, ItemsReachTheirTargets) {
    EXPECT_EQ(0, apply("port=4739,host=x"));
    EXPECT_EQ(4739, port_);
    EXPECT_STREQ("x", host_);
    EXPECT_EQ("", messages_);
}

TEST_F(ConfigSetValues, NullChangesNothing) {
    EXPECT_EQ(0, config_set_values(nullptr, table_));
    EXPECT_EQ(-5, port_);
    EXPECT_EQ(nullptr, host_);
}

TEST_F(ConfigSetValues, EmptyTextAndEmptyItemsChangeNothing) {
    EXPECT_EQ(0, apply(""));
    EXPECT_EQ(0, apply(",,,"));
    EXPECT_EQ(-5, port_);
}

TEST_F(ConfigSetValues, MissingValueIsReported) {
    EXPECT_EQ(-1, apply("port="));
    EXPECT_EQ("Cfgline problem: port\n", messages_);
    EXPECT_EQ(-5, port_);
}

TEST_F(ConfigSetValues, MissingKeyIsReported) {
    EXPECT_EQ(-1, apply("=7"));
    EXPECT_EQ("Cfgline problem: \n", messages_);
}

TEST_F(ConfigSetValues, MissingEqualsSignIsReported) {
    EXPECT_EQ(-1, apply("port"));
    EXPECT_EQ("Cfgline problem: port\n", messages_);
}

TEST_F(ConfigSetValues, ThreePiecesAreReported) {
    EXPECT_EQ(-1, apply("a=b=c"));
    EXPECT_EQ("Cfgline problem: a\n", messages_);
}

TEST_F(ConfigSetValues, DoubledEqualsSignsAreDroppedLikeEmptyPieces) {
    EXPECT_EQ(0, apply("=port==7="));
    EXPECT_EQ(7, port_);
}

TEST_F(ConfigSetValues, ItemsBeforeABadOneAreApplied) {
    EXPECT_EQ(-1, apply("port=1,bad,rate=2"));
    EXPECT_EQ(1, port_);
    EXPECT_EQ(-5, rate_);
}

TEST_F(ConfigSetValues, UnknownKeysAreIgnored) {
    EXPECT_EQ(0, apply("unknown=1,por=2"));
    EXPECT_EQ("", messages_);
    EXPECT_EQ(-5, port_);
}

TEST_F(ConfigSetValues, LongerKeysMatchTheirPrefix) {
    EXPECT_EQ(0, apply("port2=7"));
    EXPECT_EQ(7, port_);
}

TEST_F(ConfigSetValues, FirstMatchingRowWins) {
    int32_t ip = 0, ipfix = 0;
    const config_setting table[] = {
        {"ip", &ip, CONFIG_INTEGER}, {"ipfix", &ipfix, CONFIG_INTEGER}, {nullptr, nullptr, 0}};
    char params[] = "ipfix=3";
    EXPECT_EQ(0, config_set_values(params, table));
    EXPECT_EQ(3, ip);
    EXPECT_EQ(0, ipfix);
}

TEST_F(ConfigSetValues, LaterItemsOverwriteEarlierOnes) {
    EXPECT_EQ(0, apply("port=1,port=2"));
    EXPECT_EQ(2, port_);
}

TEST_F(ConfigSetValues, NumbersAreConvertedWithoutCheck) {
    EXPECT_EQ(0, apply("port=abc,rate=12x"));
    EXPECT_EQ(0, port_);
    EXPECT_EQ(12, rate_);
    EXPECT_EQ(0, apply("port=-3"));
    EXPECT_EQ(-3, port_);
}

TEST_F(ConfigSetValues, BlanksAreKept) {
    EXPECT_EQ(0, apply("host = x"));
    EXPECT_STREQ(" x", host_);
    EXPECT_EQ(0, apply(" port=9"));
    EXPECT_EQ(-5, port_);
}

TEST_F(ConfigSetValues, UnknownTypeIsReported) {
    const config_setting table[] = {{"port", &port_, 2}, {nullptr, nullptr, 0}};
    char params[] = "port=1";
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, config_set_values(params, table));
    EXPECT_EQ("INVALID config value type (programming error)\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(ConfigSetValues, EachStepIsToldAtLevelTwo) {
    verbose_level = 2;
    EXPECT_EQ(0, apply("portnumber=5,x=1"));
    EXPECT_EQ(
        "VERBOSE: 2:Cfg processing: portnumber=5\n"
        "VERBOSE: 2:Cfg found match: portnumber 5\n"
        "VERBOSE: 2:Cfg processing: x=1\n",
        messages_);
}

}  // namespace
