// Files that follow each other, as messages come.
#include "file_output.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

namespace {

namespace fs = std::filesystem;
using namespace json_export;

constexpr uint64_t noon_s = 1'599'998'400;  // 2020-09-13 12:00:00 UTC
constexpr uint64_t hour_s = 3600;

// As on a full disk, but with another error.
class no_room_in_files {
  public:
    no_room_in_files() {
        (void)signal(SIGXFSZ, SIG_IGN);
        (void)getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit none = {0, before_.rlim_max};
        (void)setrlimit(RLIMIT_FSIZE, &none);
    }
    ~no_room_in_files() { (void)setrlimit(RLIMIT_FSIZE, &before_); }

  private:
    rlimit before_{};
};

class FileOutput : public testing::Test {
  protected:
    FileOutput() {
        std::string path = (fs::temp_directory_path() / "kestrel-json-XXXXXX").string();
        directory = mkdtemp(path.data());
    }
    ~FileOutput() override { fs::remove_all(directory); }

    static void deliver(file_output& to, uint64_t time_s, std::string text) {
        const outlet_message message = {
            text.data(), static_cast<uint32_t>(text.size()), 1, 1, time_s * 1'000'000'000, 0};
        EXPECT_EQ(to.deliver(message), OUTLET_DONE);
    }

    // What the files have, by their names.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> found;
        for (const auto& entry : fs::directory_iterator(directory)) {
            std::ifstream file(entry.path());
            found[entry.path().filename()] = {std::istreambuf_iterator<char>(file), {}};
        }
        return found;
    }

    file_settings a_file_an_hour() const {
        file_settings wanted;
        wanted.pattern = directory / "%H.json";
        wanted.rotate_s = hour_s;
        wanted.longest_message = 100;
        return wanted;
    }

    fs::path directory;
    output_account account;
};

TEST_F(FileOutput, FollowsAClockThatIsSetBack) {
    file_output output(a_file_an_hour(), account);
    deliver(output, noon_s, "a\n");
    deliver(output, noon_s - 1, "b\n");  // a message that was on its way
    deliver(output, noon_s + hour_s, "c\n");
    deliver(output, noon_s - 5 * hour_s, "d\n");
    deliver(output, noon_s - 4 * hour_s, "e\n");
    output.end();
    EXPECT_EQ(
        files(),
        (std::map<std::string, std::string>{
            {"12.json", "a\nb\n"}, {"13.json", "c\n"}, {"07.json", "d\n"}, {"08.json", "e\n"}}));
}

TEST_F(FileOutput, GivesNoNameToAFileThatNothingCouldBeWrittenInto) {
    file_output output(a_file_an_hour(), account);
    deliver(output, noon_s, "a\n");
    std::string late = "b\n";
    const outlet_message message = {late.data(), 2, 1, 1, (noon_s + hour_s) * 1'000'000'000, 0};
    {
        const no_room_in_files no_room;
        EXPECT_EQ(output.deliver(message), OUTLET_LATER);
    }
    EXPECT_EQ(files(),
              (std::map<std::string, std::string>{{"12.json", "a\n"}, {"13.json.part", ""}}));
    output.end();
    EXPECT_EQ(files(), (std::map<std::string, std::string>{{"12.json", "a\n"}}));
}

}  // namespace
