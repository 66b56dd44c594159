#include "base/split.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using kestrel::split;
using strings = std::vector<std::string>;

strings pieces(const split& from) {
    return {from.begin(), from.end()};
}

TEST(Split, PiecesComeInOrderWithoutEmptyOnes) {
    EXPECT_EQ((strings{"a", "bc"}), pieces(split(":a::bc:", ':')));
}

TEST(Split, NoTextHasNoPieces) {
    EXPECT_EQ(0u, split(nullptr, ':').size());
    EXPECT_EQ(0u, split("", ':').size());
    EXPECT_EQ(0u, split(":::", ':').size());
}

TEST(Split, APieceBehindTheLastIsNone) {
    const split both("a,b", ',');
    EXPECT_EQ(2u, both.size());
    EXPECT_STREQ("b", both[1]);
    EXPECT_STREQ("b", both.at(1));
    EXPECT_EQ(nullptr, both.at(2));
}

}  // namespace
