#include "output_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string_view>

#include "scratch_directory.h"
#include "size_limit.h"

namespace ipfix_file {
namespace {

using names = std::vector<std::string>;

int append(output_file& file, std::string_view text) {
    return file.append({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

TEST(OutputFile, HasItsNameWhenItIsComplete) {
    const kestrel_test::scratch_directory directory;
    output_file file(directory.path());
    ASSERT_EQ(0, file.open("flows.ipfix"));
    EXPECT_EQ(0, append(file, "first "));
    EXPECT_EQ(0, append(file, "second"));
    EXPECT_EQ(12u, file.length());
    EXPECT_EQ(directory.path() + "/flows.ipfix.part", file.path());
    EXPECT_EQ(names{"flows.ipfix.part"}, directory.names());
    EXPECT_EQ(0, file.sync());
    EXPECT_EQ(0, file.complete());
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(names{"flows.ipfix"}, directory.names());
    EXPECT_EQ("first second", directory.content("flows.ipfix"));
}

TEST(OutputFile, NeverTakesTheNameOfAnother) {
    const kestrel_test::scratch_directory directory;
    directory.write("flows.ipfix", "complete");
    directory.write("flows.1.ipfix.part", "left by a crash");
    output_file file(directory.path());
    ASSERT_EQ(0, file.open("flows.ipfix"));
    EXPECT_EQ(directory.path() + "/flows.2.ipfix.part", file.path());
    // Another program was quicker with the name.
    directory.write("flows.2.ipfix", "complete, too");
    EXPECT_EQ(0, file.complete());
    EXPECT_EQ((names{"flows.1.ipfix.part", "flows.2.ipfix", "flows.3.ipfix", "flows.ipfix"}),
              directory.names());
    EXPECT_EQ("complete", directory.content("flows.ipfix"));
    EXPECT_EQ("complete, too", directory.content("flows.2.ipfix"));
}

TEST(OutputFile, FilesOfOneNameAreNumbered) {
    const kestrel_test::scratch_directory directory;
    output_file file(directory.path());
    for (int n = 0; n < 3; ++n) {
        ASSERT_EQ(0, file.open("same"));
        EXPECT_EQ(0, file.complete());
    }
    ASSERT_EQ(0, file.open("other"));
    EXPECT_EQ(0, file.complete());
    EXPECT_EQ((names{"other", "same", "same.1", "same.2"}), directory.names());
}

TEST(OutputFile, HoldsNoHalfMessageWhenTheDiskIsFull) {
    const kestrel_test::scratch_directory directory;
    output_file file(directory.path());
    ASSERT_EQ(0, file.open("flows"));
    {
        const kestrel_test::size_limit limit(10);
        EXPECT_EQ(0, append(file, "whole "));
        EXPECT_EQ(EFBIG, append(file, "does not fit"));
        EXPECT_EQ("whole ", directory.content("flows.part"));
        EXPECT_EQ(6u, file.length());
        EXPECT_FALSE(file.is_lost());
    }
    EXPECT_EQ(0, append(file, "and the next"));
    EXPECT_EQ(0, file.complete());
    EXPECT_EQ("whole and the next", directory.content("flows"));
}

TEST(OutputFile, CanGoBack) {
    const kestrel_test::scratch_directory directory;
    output_file file(directory.path());
    ASSERT_EQ(0, file.open("flows"));
    EXPECT_EQ(0, append(file, "kept "));
    EXPECT_EQ(0, append(file, "dropped"));
    EXPECT_EQ(0, file.cut_back(5));
    EXPECT_EQ(0, append(file, "again"));
    EXPECT_EQ(0, file.complete());
    EXPECT_EQ("kept again", directory.content("flows"));
}

TEST(OutputFile, ThatIsDeletedIsLost) {
    const kestrel_test::scratch_directory directory;
    output_file file(directory.path());
    ASSERT_EQ(0, file.open("flows"));
    EXPECT_FALSE(file.is_lost());
    std::filesystem::remove(directory.path() + "/flows.part");
    EXPECT_EQ(ENOENT, file.sync());
    EXPECT_TRUE(file.is_lost());
    ASSERT_EQ(0, file.open("flows"));
    EXPECT_FALSE(file.is_lost());
    file.remove();
    EXPECT_EQ(names{}, directory.names());
}

TEST(OutputFile, NeedsItsDirectory) {
    output_file file("/tmp/kestrel-test-there-is-none");
    EXPECT_EQ(ENOENT, file.open("flows"));
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ("/tmp/kestrel-test-there-is-none/flows.part", file.path());
}

TEST(OutputFile, StaysAsideWhenItIsAbandoned) {
    const kestrel_test::scratch_directory directory;
    output_file file(directory.path());
    ASSERT_EQ(0, file.open("flows"));
    EXPECT_EQ(0, append(file, "what there is"));
    file.abandon();
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ("what there is", directory.content("flows.part"));
}

}  // namespace
}  // namespace ipfix_file
