#include "base/config_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "kestrelexp/service.h"
#include "tests/support/scratch_file.h"

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

// What is said of a file that is opened and not read; fails the test when it is.
std::string refusal(const char* path) {
    testing::internal::CaptureStderr();
    const kestrel::config_file file = kestrel::read_config_file(path);
    EXPECT_EQ(kestrel::config_outcome::unreadable, file.outcome);
    EXPECT_FALSE(file.lines);
    return testing::internal::GetCapturedStderr();
}

TEST(ReadConfig, DirectoryIsRefused) {
    EXPECT_EQ("Unable to read /tmp: Is a directory\n", refusal("/tmp"));
}

TEST(ReadConfig, PluginsGetNoLinesOfADirectory) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, read_config("/tmp"));
    EXPECT_EQ("Unable to read /tmp: Is a directory\n", testing::internal::GetCapturedStderr());
}

TEST(ReadConfig, DeviceWithoutEndIsRefusedWithinASecond) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("Unable to read /dev/zero: a line of more than 1 MiB\n", refusal("/dev/zero"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(ReadConfig, LinesOfOneMebibyteAreTaken) {
    constexpr size_t limit = 1'048'576;
    const std::string longest = std::string(limit - 1, 'x') + "\n";
    strings pieces(129, std::string(16383, 'x'));
    pieces[64] = std::string(63, 'x');  // 64 * 16,383 + 63 and the line end
    pieces.emplace_back(63, 'x');
    EXPECT_TRUE(pieces == lines_of(longest + longest));
    kestrel_test::scratch_file file("short\nx" + longest);
    EXPECT_EQ("Unable to read " + std::string(file.path()) + ": a line of more than 1 MiB\n",
              refusal(file.path()));
}

TEST(ReadConfig, FilesOf128MebibytesAreTaken) {
    constexpr size_t limit = 134'217'728;
    kestrel_test::scratch_file file;
    const std::string comment = "#" + std::string(8'190, 'x') + "\n";
    std::ofstream writing(file.path());
    for (size_t written = 0; written < limit; written += comment.size())
        writing << comment;
    writing.flush();
    const kestrel::config_file whole = kestrel::read_config_file(file.path());
    EXPECT_EQ(kestrel::config_outcome::read, whole.outcome);
    ASSERT_TRUE(whole.lines);
    EXPECT_EQ(nullptr, whole.lines[0]);
    writing << '\n' << std::flush;
    EXPECT_EQ("Unable to read " + std::string(file.path()) + ": more than 128 MiB\n",
              refusal(file.path()));
}

TEST(ReadConfig, MissingFileIsTheCallersToReport) {
    testing::internal::CaptureStderr();
    const kestrel::config_file missing = kestrel::read_config_file("/nonexistent/file");
    EXPECT_EQ(kestrel::config_outcome::not_opened, missing.outcome);
    EXPECT_FALSE(missing.lines);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

}  // namespace
