#include "settings.h"

#include <gtest/gtest.h>

#include "scratch_directory.h"

namespace ipfix_file {
namespace {

// What is said about bad parameters; empty: they are good.
std::string said_about(std::string params, settings& wanted) {
    testing::internal::CaptureStderr();
    const bool is_good = read_settings(params.data(), wanted);
    std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(is_good, said.empty());
    return said;
}
std::string said_about(const std::string& params) {
    settings wanted;
    return said_about(params, wanted);
}

TEST(Settings, HaveStandards) {
    settings wanted;
    EXPECT_EQ("", said_about("file=/tmp/flows.ipfix", wanted));
    EXPECT_EQ("/tmp", wanted.directory);
    EXPECT_EQ("flows.ipfix", wanted.pattern);
    EXPECT_EQ("/etc/kestrel/ipfix-template.txt", wanted.template_file);
    EXPECT_EQ(0u, wanted.rotate_s);
    EXPECT_EQ(0u, wanted.rotate_bytes);
    EXPECT_EQ(16'777'216u, wanted.queue_bytes);
    EXPECT_EQ(10u, wanted.drain_s);
    EXPECT_EQ(0u, wanted.source_id);
}

TEST(Settings, AreRead) {
    settings wanted;
    EXPECT_EQ("", said_about("rotate-time=300,rotate-size=2,file=/flows-%H:%M,queue=1,drain=0,"
                             "source_id=4294967295,template_file=/etc/t",
                             wanted));
    EXPECT_EQ("/", wanted.directory);
    EXPECT_EQ("flows-%H:%M", wanted.pattern);
    EXPECT_EQ("/etc/t", wanted.template_file);
    EXPECT_EQ(300u, wanted.rotate_s);
    EXPECT_EQ(2'097'152u, wanted.rotate_bytes);
    EXPECT_EQ(1'048'576u, wanted.queue_bytes);
    EXPECT_EQ(0u, wanted.drain_s);
    EXPECT_EQ(4'294'967'295u, wanted.source_id);
    EXPECT_EQ("", said_about("file=flows,template-file=other", wanted));
    EXPECT_EQ(".", wanted.directory);
    EXPECT_EQ("other", wanted.template_file);
}

TEST(Settings, NameAFile) {
    EXPECT_EQ("ipfix-file: file=PATH is mandatory\n", said_about("queue=1"));
    for (const std::string name : {"/tmp/", "/tmp/%D"})
        EXPECT_EQ("ipfix-file: file=" + name +
                      " names no file: after the last '/' comes a name of 1 to 230 bytes, without "
                      "a '/' among its fields\n",
                  said_about("file=" + name));
    EXPECT_EQ("", said_about("file=/tmp/" + std::string(230, 'x')));
    EXPECT_NE("", said_about("file=/tmp/" + std::string(231, 'x')));
}

TEST(Settings, HaveBounds) {
    const std::string file = "file=/tmp/flows,";
    EXPECT_EQ("ipfix-file: rotate-time=0 is no number from 1 to 31622400\n",
              said_about(file + "rotate-time=0"));
    EXPECT_EQ("ipfix-file: rotate-size=1M is no number from 1 to 1048576\n",
              said_about(file + "rotate-size=1M"));
    EXPECT_EQ("ipfix-file: queue=4097 is no number from 1 to 4096\n",
              said_about(file + "queue=4097"));
    EXPECT_EQ("ipfix-file: drain=-1 is no number from 0 to 3600\n", said_about(file + "drain=-1"));
    EXPECT_EQ("ipfix-file: source_id=4294967296 is no number from 0 to 4294967295\n",
              said_about(file + "source_id=4294967296"));
}

TEST(Settings, NameADirectoryThatCanBeWrittenTo) {
    EXPECT_EQ(
        "ipfix-file: cannot write to the directory /tmp/kestrel-test-there-is-none: "
        "No such file or directory\n",
        said_about("file=/tmp/kestrel-test-there-is-none/flows"));
    EXPECT_EQ("ipfix-file: cannot write to the directory /dev/null: Not a directory\n",
              said_about("file=/dev/null/flows"));
}

}  // namespace
}  // namespace ipfix_file
