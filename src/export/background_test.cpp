// The parameters of exports in the background.
#include "export/background.h"

#include <gtest/gtest.h>

#include <string>

#include "base/memory.h"

namespace kestrel {
namespace {

using testing::ExitedWithCode;

background_settings read(std::string params) {
    background_settings settings;
    static std::string kept;  // settings point into it
    kept = std::move(params);
    const auto rows = settings.rows();
    const config_setting table[] = {rows[0], rows[1], rows[2], {nullptr, nullptr, 0}};
    EXPECT_EQ(config_set_values(kept.data(), table), 0);
    return settings;
}

TEST(Background, IsAskedFor) {
    EXPECT_FALSE(is_background(read("host=x")));
    EXPECT_TRUE(is_background(read("reconnect=background")));
    EXPECT_TRUE(is_background(read("queue=1,reconnect=background,drain=0")));
    EXPECT_TRUE(is_background(read("queue=4096,drain=3600,reconnect=background")));
}

TEST(Background, SettingsThatMakeNoSenseEndTheStart) {
    EXPECT_EXIT(is_background(read("reconnect=often")), ExitedWithCode(255),
                "^Unknown reconnect: often \\(there is background\\)\n$");
    EXPECT_EXIT(is_background(read("reconnect=background2")), ExitedWithCode(255),
                "^Unknown reconnect: background2");
    EXPECT_EXIT(is_background(read("queue=16")), ExitedWithCode(255),
                "^queue goes with reconnect=background\n$");
    EXPECT_EXIT(is_background(read("drain=0")), ExitedWithCode(255),
                "^drain goes with reconnect=background\n$");
    EXPECT_EXIT(is_background(read("reconnect=background,queue=0")), ExitedWithCode(255),
                "^queue is from 1 to 4096\n$");
    EXPECT_EXIT(is_background(read("reconnect=background,queue=4097")), ExitedWithCode(255),
                "^queue is from 1 to 4096\n$");
    EXPECT_EXIT(is_background(read("reconnect=background,drain=-1")), ExitedWithCode(255),
                "^drain is from 0 to 3600\n$");
    EXPECT_EXIT(is_background(read("reconnect=background,drain=3601")), ExitedWithCode(255),
                "^drain is from 0 to 3600\n$");
}

TEST(Background, TheFamilyIsCheckedAtTheStart) {
    std::string host = "127.0.0.1";
    collector to;
    to.host = host.data();
    to.ip = 5;
    auto& silent = *make_lifelong<conversation>();  // as exports have theirs
    send_account account("reason=\"none\"");
    EXPECT_EXIT(open_background("tested", read("reconnect=background"), to, silent, account),
                ExitedWithCode(255), "^Can't connect to collector\n$");
}

}  // namespace
}  // namespace kestrel
