// Tests of the plugin directory scan. What the loader makes of real shared objects is tested with
// the whole program.
#include "contract/plugin_loader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/log.h"

namespace kestrel {
namespace {

struct PluginDirectory : testing::Test {
    void SetUp() override {
        char name[] = "/tmp/kestrel-plugins-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        prefix = name;
        std::filesystem::create_directories(prefix + "/lib/plugins");
    }
    void TearDown() override { std::filesystem::remove_all(prefix); }

    void add_file(const char* name) {
        std::ofstream(prefix + "/lib/plugins/" + name) << "no shared object\n";
    }

    std::string messages_of_scan(const char* directory = "/lib/plugins") {
        testing::internal::CaptureStderr();
        load_plugin_directory(prefix.c_str(), directory, registry);
        return testing::internal::GetCapturedStderr();
    }

    std::string prefix;
    plugin_registry registry{};
};

TEST_F(PluginDirectory, FilesThatAreNoObjectsAreReportedInAlphabeticalOrder) {
    add_file("b.so");
    add_file("a.so");
    add_file("c.txt");
    EXPECT_EQ(messages_of_scan(), "Unable to open plugin: " + prefix + "//lib/plugins/a.so\n" +
                                      "Unable to open plugin: " + prefix + "//lib/plugins/b.so\n" +
                                      "Unable to open plugin: " + prefix + "//lib/plugins/c.txt\n");
    EXPECT_EQ(registry.input_count, 0);
    EXPECT_EQ(registry.directory_list, nullptr);
}

TEST_F(PluginDirectory, HiddenFilesAreSkipped) {
    add_file(".a.so");
    EXPECT_EQ(messages_of_scan(), "");
}

TEST_F(PluginDirectory, AnEmptyDirectoryIsSilent) {
    EXPECT_EQ(messages_of_scan(), "");
}

TEST_F(PluginDirectory, AMissingDirectoryIsSilent) {
    EXPECT_EQ(messages_of_scan("/lib/no-such-directory"), "");
}

TEST_F(PluginDirectory, AFileInPlaceOfTheDirectoryIsSilent) {
    add_file("a.so");
    EXPECT_EQ(messages_of_scan("/lib/plugins/a.so"), "");
}

TEST_F(PluginDirectory, TheProgramsOwnDirectoryIsFixed) {
    EXPECT_STREQ(plugin_prefix, "/usr");
    EXPECT_STREQ(plugin_directory, "/lib64/kestrelexp");
}

}  // namespace
}  // namespace kestrel
