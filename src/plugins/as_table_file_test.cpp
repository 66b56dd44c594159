#include "plugins/as_table_file.h"

#include <gtest/gtest.h>

#include <string>

#include "kestrelexp/service.h"
#include "tests/support/scratch_file.h"

namespace {

using namespace kestrel;
using kestrel_test::scratch_file;

class AsTableFile : public testing::Test {
  protected:
    void SetUp() override { verbose_level = -1; }

    as_file read(const std::string& content) {
        scratch_file file(content);
        tables_ = {};
        testing::internal::CaptureStderr();
        const as_file outcome = read_as_tables(file.path(), tables_);
        said_ = testing::internal::GetCapturedStderr();
        return outcome;
    }

    as_tables tables_;
    std::string said_;
};

TEST_F(AsTableFile, LinesBecomeTables) {
    EXPECT_EQ(as_file::loaded, read("# AS numbers\n"
                                    "65001-192.0.2.9/24\n"
                                    "65002-2001:db8::1:2/128\r\n"
                                    "\n"
                                    "4200000000-198.51.100.0/25"));
    EXPECT_EQ("", said_);
    ASSERT_EQ(2u, tables_.table4.size());
    EXPECT_EQ(4200000000u, tables_.table4[0].asn);
    EXPECT_EQ(0xC6336400u, tables_.table4[0].network);
    EXPECT_EQ(25u, tables_.table4[0].prefix_len);
    EXPECT_EQ(65001u, tables_.table4[1].asn);
    EXPECT_EQ(0xC0000200u, tables_.table4[1].network);
    EXPECT_EQ(24u, tables_.table4[1].prefix_len);
    ASSERT_EQ(1u, tables_.table6.size());
    EXPECT_EQ(65002u, tables_.table6[0].asn);
    EXPECT_EQ(0x00010002u, tables_.table6[0].network[0]);
    EXPECT_EQ(0u, tables_.table6[0].network[1]);
    EXPECT_EQ(0x20010DB8u, tables_.table6[0].network[3]);
    EXPECT_EQ(128u, tables_.table6[0].prefix_len);
}

TEST_F(AsTableFile, AFileOfCommentsIsAnEmptyTable) {
    EXPECT_EQ(as_file::loaded, read("# nothing here\n"));
    EXPECT_TRUE(tables_.empty());
}

TEST_F(AsTableFile, AFileThatCannotBeOpenedIsNotSpokenOf) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(as_file::not_opened, read_as_tables("/nonexistent/file", tables_));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(AsTableFile, ALineWithoutItsSeparatorsIsNamedByItsIndex) {
    EXPECT_EQ(as_file::faulty, read("65001-192.0.2.0\n"));
    EXPECT_EQ("AS Helper found invalid config line: 0\n", said_);
    // Comments and short lines do not count.
    EXPECT_EQ(as_file::faulty, read("#\n65001-192.0.2.0/24\n1\n65001 192.0.2.0/24\n"));
    EXPECT_EQ("AS Helper found invalid config line: 1\n", said_);
}

// The number is what the line begins with, the address stands after the '-', the prefix length
// after the '/', whichever comes first: 65001 is the address 0.0.253.233.
TEST_F(AsTableFile, SeparatorsMayComeInEitherOrder) {
    EXPECT_EQ(as_file::loaded, read("10.0.0.0/8-65001\n7/24-192.0.2.9\n"));
    EXPECT_EQ("", said_);
    ASSERT_EQ(2u, tables_.table4.size());
    EXPECT_EQ(7u, tables_.table4[0].asn);
    EXPECT_EQ(0xC0000200u, tables_.table4[0].network);
    EXPECT_EQ(24u, tables_.table4[0].prefix_len);
    EXPECT_EQ(10u, tables_.table4[1].asn);
    EXPECT_EQ(0u, tables_.table4[1].network);
    EXPECT_EQ(8u, tables_.table4[1].prefix_len);
    EXPECT_EQ(as_file::faulty, read("65001/24-\n"));
    EXPECT_EQ("Unable to get addr: \n", said_);
}

TEST_F(AsTableFile, TheFirstSeparatorsCount) {
    EXPECT_EQ(as_file::loaded, read("65001-192.0.2.0/24/8-7\n"));
    EXPECT_EQ(24u, tables_.table4.at(0).prefix_len);
}

TEST_F(AsTableFile, NamesAreNotLookedUp) {
    EXPECT_EQ(as_file::faulty, read("65001-localhost/24\n"));
    EXPECT_EQ("Unable to get addr: localhost\n", said_);
    EXPECT_EQ(as_file::faulty, read("65001-192.0.2.256/24\n"));
    EXPECT_EQ("Unable to get addr: 192.0.2.256\n", said_);
    EXPECT_EQ(as_file::faulty, read("65001-/24\n"));
    EXPECT_EQ("Unable to get addr: \n", said_);
    EXPECT_EQ(as_file::faulty, read("65001- 192.0.2.0/24\n"));
    EXPECT_EQ("Unable to get addr:  192.0.2.0\n", said_);
}

TEST_F(AsTableFile, APrefixThatIsTooLongIsCutWithAWarning) {
    EXPECT_EQ(as_file::loaded, read("65001-192.0.2.0/40\n65002-2001:db8::/129\n1-10.0.0.0/33\n"));
    EXPECT_EQ(
        "Network mask out of range: 40\nNetwork mask out of range: 129\n"
        "Network mask out of range: 33\n",
        said_);
    EXPECT_EQ(32u, tables_.table4.at(0).prefix_len);
    EXPECT_EQ(32u, tables_.table4.at(1).prefix_len);
    EXPECT_EQ(128u, tables_.table6.at(0).prefix_len);
    EXPECT_EQ(65001u, find_as4(tables_.table4, 0xC0000200));
    EXPECT_EQ(0u, find_as4(tables_.table4, 0xC0000201));
}

TEST_F(AsTableFile, APrefixThatNoNumberOfBitsCanBeIsOutOfRange) {
    EXPECT_EQ(as_file::loaded, read("1-192.0.2.0/-1\n3-192.0.4.0/99999999999999999999\n"
                                    "4-192.0.5.0/65569\n5-2001:db8::/65665\n"));
    EXPECT_EQ(
        "Network mask out of range: -1\nNetwork mask out of range: 99999999999999999999\n"
        "Network mask out of range: 65569\nNetwork mask out of range: 65665\n",
        said_);
    ASSERT_EQ(3u, tables_.table4.size());
    for (const as4_entry& entry : tables_.table4)
        EXPECT_EQ(32u, entry.prefix_len);
    EXPECT_EQ(128u, tables_.table6.at(0).prefix_len);
}

TEST_F(AsTableFile, APrefixIsCutToSixteenBitsBeforeItIsCompared) {
    EXPECT_EQ(as_file::loaded, read("1-192.0.2.9/65560\n2-2001:db8::1/65664\n3-10.0.0.1/65536\n"
                                    "4-10.0.0.1/-65504\n"));
    EXPECT_EQ("", said_);
    ASSERT_EQ(3u, tables_.table4.size());
    EXPECT_EQ(24u, tables_.table4[0].prefix_len);
    EXPECT_EQ(0xC0000200u, tables_.table4[0].network);
    EXPECT_EQ(32u, tables_.table4[1].prefix_len);  // 65,536 above -65,504
    EXPECT_EQ(0u, tables_.table4[2].prefix_len);
    EXPECT_EQ(128u, tables_.table6.at(0).prefix_len);
}

TEST_F(AsTableFile, ThePrefixLimitsThemselvesAreFine) {
    EXPECT_EQ(as_file::loaded, read("1-192.0.2.0/32\n2-192.0.2.0/0\n3-::/128\n4-::/0\n"));
    EXPECT_EQ("", said_);
}

TEST_F(AsTableFile, NumbersGoAsFarAsTheirDigits) {
    EXPECT_EQ(as_file::loaded, read("AS65001-192.0.2.0/24\n65001x-192.0.3.0/24x\n-192.0.4.0/\n"
                                    "4294967295-192.0.5.0/24\n"));
    ASSERT_EQ(4u, tables_.table4.size());
    EXPECT_EQ(4294967295u, tables_.table4[0].asn);  // 192.0.5.0
    EXPECT_EQ(65001u, tables_.table4[1].asn);       // 192.0.3.0
    EXPECT_EQ(24u, tables_.table4[1].prefix_len);
    EXPECT_EQ(0u, tables_.table4[2].asn);  // 192.0.2.0
    EXPECT_EQ(0u, tables_.table4[3].asn);  // 0.0.0.0, cut to no bits
    EXPECT_EQ(0u, tables_.table4[3].prefix_len);
}

TEST_F(AsTableFile, TablesComeSorted) {
    EXPECT_EQ(as_file::loaded, read("1-10.0.0.0/8\n3-30.0.0.0/8\n2-20.0.0.0/8\n"));
    EXPECT_EQ(3u, tables_.table4[0].asn);
    EXPECT_EQ(2u, tables_.table4[1].asn);
    EXPECT_EQ(1u, tables_.table4[2].asn);
}

}  // namespace
