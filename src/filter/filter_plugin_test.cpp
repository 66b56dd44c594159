#include <gtest/gtest.h>

#include "filter/filter_rules.h"
#include "kestrelexp/builtin.h"
#include "tests/support/filter_fixture.h"

namespace {

using namespace kestrel_test;

TEST(FilterPlugin, DescribesItself) {
    const plugin_description* description = filter_desc();
    EXPECT_STREQ("filter", description->name);
    EXPECT_STREQ(
        "Allows filter outgoing flows by addr, port, etc.\n"
        "Mandatory parameter is filename with filter configuration.\n"
        "For details about filter rules see the documentation.",
        description->description);
    EXPECT_EQ(0, description->data_size);
    EXPECT_EQ(0, description->flags);
}

TEST(FilterPlugin, ItsParameterIsARuleFile) {
    const text_file file("any\n");
    std::string path = file.path();
    const kestrel::filter_owner rules(
        static_cast<filter_rules*>(filter_init(path.data(), nullptr)));
    ASSERT_NE(nullptr, rules);
    EXPECT_EQ(1u, rules->slow_count);
    EXPECT_TRUE(keeps(rules, "10.0.0.1", "10.0.0.2"));
}

TEST(FilterPlugin, AFileThatCannotBeReadIsRefused) {
    char missing[] = "/nonexistent/rules.txt";
    for (char* path : {missing, static_cast<char*>(nullptr)}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(nullptr, filter_init(path, nullptr));
        EXPECT_EQ("Unable to read filter config\n", testing::internal::GetCapturedStderr());
    }
}

TEST(FilterPlugin, AFaultyFileIsRefused) {
    const text_file file("fast src addr 10.0.0.1\nport 80\nnonsense 1\nany\n");
    std::string path = file.path();
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, filter_init(path.data(), nullptr));
    EXPECT_EQ("Invalid rule: nonsense 1\n", testing::internal::GetCapturedStderr());
}

}  // namespace
