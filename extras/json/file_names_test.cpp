#include "file_names.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;
using namespace json_export;

constexpr uint64_t noon = 1'600'000'000;  // 2020-09-13 12:26:40 UTC

class FileNames : public testing::Test {
  protected:
    FileNames() {
        std::string path = (fs::temp_directory_path() / "kestrel-json-XXXXXX").string();
        directory = mkdtemp(path.data());
    }
    ~FileNames() override { fs::remove_all(directory); }

    std::string path(const char* name) const { return (directory / name).string(); }

    std::string make(const char* name, const char* text = "") const {
        std::ofstream(path(name)) << text;
        return path(name);
    }

    static std::string content(const std::string& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    fs::path directory;
};

TEST_F(FileNames, AreMadeOfTheTimeInUtc) {
    EXPECT_EQ(name_at("/x/flows-%Y%m%d-%H:%M:%S.json", "", noon),
              "/x/flows-20200913-12:26:40.json");
    EXPECT_EQ(name_at("flows.json", "", noon), "flows.json");
    EXPECT_EQ(name_at("100%%.json", "", noon), "100%.json");
}

TEST_F(FileNames, HavePlainConversionsOnly) {
    EXPECT_EQ(odd_conversion("/x/%Y/%m%d-100%%/%H:%M:%S-%F-%s.json"), "");
    EXPECT_EQ(odd_conversion("flows.json"), "");
    EXPECT_EQ(odd_conversion("%Y%-H.json"), "%-");
    EXPECT_EQ(odd_conversion("%_d"), "%_");
    EXPECT_EQ(odd_conversion("%Ey"), "%E");
    EXPECT_EQ(odd_conversion("%Od"), "%O");
    EXPECT_EQ(odd_conversion("%4Y"), "%4");
    EXPECT_EQ(odd_conversion("%%%D"), "%D");
    EXPECT_EQ(odd_conversion("%x"), "%x");
    EXPECT_EQ(odd_conversion("%q"), "%q");
    EXPECT_EQ(odd_conversion("flows%%%"), "%");
}

TEST_F(FileNames, HaveTheSuffixOfTheirCompressionOnce) {
    EXPECT_EQ(numbered(name_at("%H.json", ".gz", noon), 0, ".gz"), "12.json.gz");
    EXPECT_EQ(numbered(name_at("%H.json.gz", ".gz", noon), 0, ".gz"), "12.json.gz");
    EXPECT_EQ(numbered(name_at("%H.json.gz", ".gz", noon), 3, ".gz"), "12.json.3.gz");
}

TEST_F(FileNames, AFileTakesTheFirstNameThatIsFree) {
    make("flows.json", "one");
    make("flows.json.1", "two");
    const std::string aside = make("flows.json.part", "three");
    uint32_t number = 0;
    EXPECT_EQ(take_name(aside, path("flows.json"), "", number), 0);
    EXPECT_EQ(number, 2u);
    EXPECT_EQ(content(path("flows.json")), "one");
    EXPECT_EQ(content(path("flows.json.1")), "two");
    EXPECT_EQ(content(path("flows.json.2")), "three");
    EXPECT_FALSE(fs::exists(aside));
}

TEST_F(FileNames, AFileThatIsGoneTakesNone) {
    uint32_t number = 0;
    EXPECT_EQ(take_name(path("no.part"), path("no"), "", number), ENOENT);
}

TEST_F(FileNames, MissingDirectoriesAreMade) {
    EXPECT_EQ(make_directories(path("2020/09/13.json")), 0);
    EXPECT_TRUE(fs::is_directory(directory / "2020/09"));
    EXPECT_FALSE(fs::exists(directory / "2020/09/13.json"));
    EXPECT_EQ(make_directories(path("2020/09/13.json")), 0);
    make("file");
    EXPECT_EQ(make_directories(path("file/13/14.json")), ENOTDIR);
}

TEST_F(FileNames, FilesThatWereLeftAreFoundByTheirPattern) {
    const std::string one = make("a[1]-2020.json.gz.part");
    const std::string other = make("a[1]-2021.json.gz.part");
    const std::string third = make("a[1]-2021.json.1.gz.part");
    make("a[1]-2021.json.gz");
    make("a1-2021.json.gz.part");
    make("b-2021.json.gz.part");
    EXPECT_EQ(asides_of(path("a[1]-%Y.json.gz"), ".gz"),
              (std::vector<std::string>{one, other, third}));
    EXPECT_EQ(asides_of(path("none-%Y.json"), ""), std::vector<std::string>{});
}

TEST_F(FileNames, FilesThatNoTimeNamesAreNotThoseThatWereLeft) {
    const std::string own = make("2020-09-13 120000.json.part");
    make("video.json.part");
    make("2020-09-13 12000.json.part");
    make("2020-09-13 12000x.json.part");
    EXPECT_EQ(asides_of(path("%F %H%M%S.json"), ""), std::vector<std::string>{own});
}

// 2020-09-03 09:05:07 UTC, a Thursday; and hours and days of one digit and of two.
TEST_F(FileNames, WhatEachConversionMakesIsFoundAgain) {
    for (const uint64_t time_s : {1'599'123'907, 1'600'000'000})
        for (const char letter : std::string_view("%aAbBcCdeFgGhHIjklmMpPrRsSTuUVwWXyYzZ")) {
            const std::string pattern =
                path((std::string("conversion-%") + letter + ".json").c_str());
            const std::string left = name_at(pattern, "", time_s) + ".part";
            std::ofstream(left) << "x";
            EXPECT_EQ(asides_of(pattern, ""), std::vector<std::string>{left}) << letter;
            fs::remove(left);
        }
}

}  // namespace
