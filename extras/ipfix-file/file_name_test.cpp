#include "file_name.h"

#include <gtest/gtest.h>

namespace ipfix_file {
namespace {

constexpr uint64_t last_second_of_1999 = 946'684'799;

TEST(FileName, HasTheTimeInUtc) {
    EXPECT_EQ("flows-19991231-235959.ipfix",
              expand_name("flows-%Y%m%d-%H%M%S.ipfix", last_second_of_1999));
    EXPECT_EQ("365", expand_name("%j", last_second_of_1999));
}

TEST(FileName, WithoutFieldsStaysAsItIs) {
    EXPECT_EQ("flows.ipfix", expand_name("flows.ipfix", last_second_of_1999));
    EXPECT_EQ("100%", expand_name("100%%", last_second_of_1999));
}

TEST(FileName, ThatIsTooLongIsNone) {
    EXPECT_EQ(255u, expand_name(std::string(255, 'x'), 0).size());
    EXPECT_EQ("", expand_name(std::string(256, 'x'), 0));
    EXPECT_EQ("", expand_name("", 0));
}

TEST(FileName, TakesANumberBeforeItsLastDot) {
    EXPECT_EQ("flows.ipfix", number_name("flows.ipfix", 0));
    EXPECT_EQ("flows.2.ipfix", number_name("flows.ipfix", 2));
    EXPECT_EQ("flows.tcp.13.ipfix", number_name("flows.tcp.ipfix", 13));
    EXPECT_EQ("flows.1", number_name("flows", 1));
    EXPECT_EQ(".hidden.1", number_name(".hidden", 1));
}

}  // namespace
}  // namespace ipfix_file
