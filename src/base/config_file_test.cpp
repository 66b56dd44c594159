#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kestrelexp/service.h"

namespace {

using strings = std::vector<std::string>;

strings lines_of(const std::string& content) {
    char path[] = "/tmp/kestrel_config_XXXXXX";
    const int file = mkstemp(path);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), write(file, content.data(), content.size()));
    close(file);
    char** lines = read_config(path);
    unlink(path);
    strings result;
    for (char** line = lines; *line; ++line) {
        result.emplace_back(*line);
        std::free(*line);
    }
    std::free(lines);
    return result;
}

TEST(ReadConfig, LinesComeInOrder) {
    EXPECT_EQ((strings{"first line", "second"}), lines_of("first line\nsecond\n"));
}

TEST(ReadConfig, LineEndsOfBothKindsAreRemoved) {
    EXPECT_EQ((strings{"abc", "def", "ghi"}), lines_of("abc\r\ndef\nghi\r\n"));
}

TEST(ReadConfig, TwoLineEndCharactersAtMostAreRemoved) {
    EXPECT_EQ((strings{"abc\r"}), lines_of("abc\r\r\n"));
}

TEST(ReadConfig, LinesWithAHashAnywhereAreDropped) {
    EXPECT_EQ((strings{"y=1"}), lines_of("# only a comment\nx=1 # one\nhost=a#1\ny=1\n"));
}

TEST(ReadConfig, LinesOfLessThanThreeCharactersAreDropped) {
    EXPECT_EQ((strings{"abc"}), lines_of("\na\nab\nab\r\nabc\n"));
}

TEST(ReadConfig, BlanksAreKept) {
    EXPECT_EQ((strings{"   ", " a "}), lines_of("   \n a \n  \n"));
}

TEST(ReadConfig, LastLineNeedsNoNewline) {
    EXPECT_EQ((strings{"abc", "last"}), lines_of("abc\nlast"));
}

TEST(ReadConfig, EmptyFileHasNoLines) {
    EXPECT_EQ(strings{}, lines_of(""));
}

TEST(ReadConfig, LongLinesArriveInPieces) {
    EXPECT_EQ((strings{std::string(16383, 'x'), "yyyy"}),
              lines_of(std::string(16383, 'x') + "yyyy\n"));
}

TEST(ReadConfig, MissingFileIsNullWithoutAMessage) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, read_config("/nonexistent/file"));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(ReadConfig, DirectoryHasNoLines) {
    char** lines = read_config("/tmp");
    ASSERT_NE(nullptr, lines);
    EXPECT_EQ(nullptr, lines[0]);
    std::free(lines);
}

}  // namespace
