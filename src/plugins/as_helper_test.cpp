#include "plugins/as_helper.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "base/clock.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"
#include "tests/support/lifelong.h"
#include "tests/support/scratch_file.h"

namespace {

using namespace kestrel;
using kestrel_test::keep;
using kestrel_test::scratch_file;

// Uptime of the fake clock: 1,000 s. Flows of these tests end after that.
constexpr uint64_t uptime = 1'000 * ns_per_second;
constexpr clock_source clocks = {[] { return uint64_t{0}; }, [] { return uptime; }};

class AsHelper : public testing::Test {
  protected:
    void SetUp() override {
        verbose_level = -1;
        set_clock_source(&clocks);
        flow_.l3protocol = 4;
        flow_.ipv4 = {0xC0000209, 0xC6336401, 0};  // 192.0.2.9 to 198.51.100.1
    }
    void TearDown() override {
        verbose_level = -1;
        set_clock_source(nullptr);
        std::free(table_);
    }

    void load(const std::string& content) {
        file_.write(content);
        file_.set_mtime(1'600'000'000);
        state_ = keep(__as_helper_init(file_.path(), nullptr));
        ASSERT_NE(nullptr, state_);
    }

    // Looks a flow up that ends at the given time; returns what was said.
    std::string look_up(uint64_t end = 0) {
        flow_.end = end;
        testing::internal::CaptureStderr();
        EXPECT_EQ(0, as_helper_lookup(state_, &flow_));
        return testing::internal::GetCapturedStderr();
    }

    uint32_t source_as(uint64_t end = 0) {
        (void)look_up(end);
        return state_->src_as;
    }

    scratch_file file_;
    as_helper_state* state_ = nullptr;
    getter* table_ = nullptr;
    flow_record flow_ = {};
};

TEST_F(AsHelper, DescribesItself) {
    EXPECT_STREQ("as_helper", as_helper_desc()->name);
    EXPECT_STREQ(
        "AS helper converts SRC and DST IPv4/IPv6 address to 32bit AS number.\n"
        "Plugin provides SRC_AS, DST_AS, SRC_AS16 and DST_AS16 fields.\n"
        "Mandatory parameter is filename with AS helper configuration.\n"
        "For detail about AS helper configuration see the documentation.",
        as_helper_desc()->description);
    EXPECT_EQ(0, as_helper_desc()->data_size);
    EXPECT_EQ(0, as_helper_desc()->flags);
}

// ---- Look-up

TEST_F(AsHelper, SourceAndDestinationHaveTheirNumbers) {
    load("65001-192.0.2.0/24\n");
    (void)look_up();
    EXPECT_EQ(65001u, state_->src_as);
    EXPECT_EQ(0u, state_->dst_as);
    flow_.ipv4 = {0xC6336401, 0xC00002FF, 0};
    (void)look_up();
    EXPECT_EQ(0u, state_->src_as);
    EXPECT_EQ(65001u, state_->dst_as);
}

TEST_F(AsHelper, AnIpv6PrefixCoversTheLastBitsOfAnAddress) {
    load("65002-2001:db8::/32\n");
    flow_.l3protocol = 6;
    flow_.ipv6 = {{0, 0, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9},
                  {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB8, 0x0D, 0x01, 0x20}};
    (void)look_up();
    EXPECT_EQ(65002u, state_->src_as);  // any address that ends in ::0:0
    EXPECT_EQ(0u, state_->dst_as);      // 2001:db8::1
}

TEST_F(AsHelper, FamiliesDoNotMix) {
    load("65001-0.0.0.0/0\n");
    EXPECT_EQ(65001u, source_as());
    flow_.l3protocol = 6;
    EXPECT_EQ(0u, source_as());
}

TEST_F(AsHelper, OtherFlowsHaveNoNumbers) {
    load("65001-0.0.0.0/0\n65002-::/0\n");
    EXPECT_EQ(65001u, source_as());
    flow_.l3protocol = 0;
    (void)look_up();
    EXPECT_EQ(0u, state_->src_as);
    EXPECT_EQ(0u, state_->dst_as);
}

TEST_F(AsHelper, TheRecordIsLeftAsItIs) {
    load("65001-0.0.0.0/0\n");
    const flow_record before = flow_;
    (void)look_up();
    EXPECT_EQ(0, std::memcmp(&before, &flow_, sizeof before));
}

// ---- Start

TEST_F(AsHelper, NothingToReadIsNoStart) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, as_helper_init(nullptr, &table_));
    std::string nowhere = "/nonexistent/file";
    EXPECT_EQ(nullptr, as_helper_init(nowhere.data(), &table_));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(nullptr, table_);
}

TEST_F(AsHelper, AFaultyFileIsNoStart) {
    file_.write("65001-192.0.2.0/24\n65001-host.example/24\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, as_helper_init(file_.path(), &table_));
    EXPECT_EQ("Unable to get addr: host.example\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(nullptr, table_);
}

TEST_F(AsHelper, AnEmptyTableIsAStart) {
    verbose_level = 0;
    file_.write("# to be filled\n");
    testing::internal::CaptureStderr();
    state_ = keep(__as_helper_init(file_.path(), nullptr));
    EXPECT_EQ("VERBOSE: 0:AS-helper OK\n", testing::internal::GetCapturedStderr());
    ASSERT_NE(nullptr, state_);
    EXPECT_EQ(0u, source_as());
}

TEST_F(AsHelper, TheFirstCheckIsDueALittleAfterTheStart) {
    load("65001-192.0.2.0/24\n");
    EXPECT_EQ(uptime + 300'000, state_->next_check);
    EXPECT_EQ(1'600'000'000, state_->mtime);
}

// ---- Getters

TEST_F(AsHelper, FourGettersJoinTheTable) {
    file_.write("65001-192.0.2.0/24\n");
    keep(as_helper_init(file_.path(), &table_));
    constexpr struct {
        const char* name;
        uint32_t length;
    } expected[] = {{"SRC_AS", 2}, {"DST_AS", 2}, {"SRC_AS32", 4}, {"DST_AS32", 4}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_STREQ(expected[i].name, table_[i].name);
        EXPECT_EQ(expected[i].length, table_[i].length);
        EXPECT_EQ(4u, table_[i].length_fn());
        EXPECT_EQ(1, table_[i].valid(table_[i].context, &flow_));
    }
    EXPECT_EQ(nullptr, table_[4].name);
}

TEST_F(AsHelper, GettersTellOfTheFlowLookedUpLast) {
    file_.write("4200000513-192.0.2.0/24\n7-198.51.100.0/24\n");  // 0xFA56EC01 and 7
    state_ = keep(static_cast<as_helper_state*>(as_helper_init(file_.path(), &table_)));
    ASSERT_NE(nullptr, state_);
    (void)look_up();
    const auto read = [this](const char* name, uint32_t length, uint32_t network_order) {
        const getter* entry = getter_by_name(table_, name);
        uint8_t bytes[8] = {};
        entry->get(entry->context, nullptr, bytes, length, network_order, entry);
        return std::string(reinterpret_cast<char*>(bytes), length);
    };
    using namespace std::string_literals;
    EXPECT_EQ("\xFA\x56\xEC\x01"s, read("SRC_AS32", 4, 1));
    EXPECT_EQ("\x01\xEC\x56\xFA"s, read("SRC_AS32", 4, 0));
    EXPECT_EQ("\xEC\x01"s, read("SRC_AS", 2, 1));  // its low half
    EXPECT_EQ("\0\0\xFA\x56\xEC\x01"s, read("SRC_AS32", 6, 1));
    EXPECT_EQ("\0\0\0\x07"s, read("DST_AS32", 4, 1));
    EXPECT_EQ("\0\x07"s, read("DST_AS", 2, 1));
    flow_.ipv4 = {0, 0, 0};
    (void)look_up();
    EXPECT_EQ("\0\0\0\0"s, read("SRC_AS32", 4, 1));
    EXPECT_EQ("\0\0"s, read("DST_AS", 2, 1));
}

// ---- File checks and reloads

TEST_F(AsHelper, ACheckIsDueWhenAFlowEndsAfterItsTime) {
    load("65001-192.0.2.0/24\n");
    verbose_level = 5;
    EXPECT_EQ("", look_up(uptime + 300'000));
    EXPECT_EQ(
        "VERBOSE: 5:It's time to reread config\n"
        "VERBOSE: 5:mtime not changed. leaving old config\n",
        look_up(uptime + 300'001));
    EXPECT_EQ(uptime + 600'001, state_->next_check);
    EXPECT_EQ("", look_up(uptime + 600'001));
    EXPECT_EQ("", look_up(1));
    EXPECT_NE("", look_up(uptime + 600'002));
}

TEST_F(AsHelper, AChangedFileIsReadAnew) {
    load("65001-192.0.2.0/24\n");
    file_.replace("65009-192.0.2.0/24\n", 1'600'000'001);
    EXPECT_EQ(65001u, source_as(uptime + 300'000));  // not due yet
    verbose_level = 5;
    EXPECT_EQ(
        "VERBOSE: 5:It's time to reread config\n"
        "VERBOSE: 5:config changed. trying to reload\n"
        "VERBOSE: 0:AS-helper OK\n",
        look_up(uptime + 300'001));
    EXPECT_EQ(65001u, state_->src_as);  // the check comes after the look-up
    EXPECT_EQ(1'600'000'001, state_->mtime);
    EXPECT_EQ(uptime + 300'000, state_->next_check);
    EXPECT_EQ(65009u, source_as(uptime + 1'000'000));
}

TEST_F(AsHelper, AnOlderFileIsAChangedFile) {
    load("65001-192.0.2.0/24\n");
    file_.replace("65009-192.0.2.0/24\n", 1'500'000'000);
    (void)look_up(uptime + 300'001);
    EXPECT_EQ(65009u, source_as());
}

TEST_F(AsHelper, AFileOfTheSameTimeIsNotReadAnew) {
    load("65001-192.0.2.0/24\n");
    file_.replace("65009-192.0.2.0/24\n", 1'600'000'000);
    (void)look_up(uptime + 300'001);
    EXPECT_EQ(65001u, source_as());
}

TEST_F(AsHelper, AFileThatIsGoneKeepsTheTables) {
    load("65001-192.0.2.0/24\n");
    file_.remove();
    EXPECT_EQ("Unable to stat: " + std::string(file_.path()) + "\n", look_up(uptime + 300'001));
    EXPECT_EQ(65001u, source_as());
    EXPECT_EQ(uptime + 600'001, state_->next_check);
}

TEST_F(AsHelper, AFileThatIsGoneIsNotReportedWithEveryFlow) {
    load("65001-192.0.2.0/24\n");
    file_.remove();
    EXPECT_NE("", look_up(uptime + 300'001));
    for (uint64_t flow = 2; flow < 1000; ++flow)
        EXPECT_EQ("", look_up(uptime + flow * 300'001));
}

TEST_F(AsHelper, AFileThatCannotBeReadAnyMoreKeepsEverything) {
    load("65001-192.0.2.0/24\n");
    file_.remove();
    ASSERT_EQ(0, mknod(file_.path(), S_IFSOCK | 0600, 0));  // has a time, and nobody opens it
    verbose_level = 5;
    EXPECT_EQ(
        "VERBOSE: 5:It's time to reread config\n"
        "VERBOSE: 5:config changed. trying to reload\n",
        look_up(uptime + 300'001));
    EXPECT_EQ(state_, __as_helper_init(file_.path(), state_));
    EXPECT_EQ(65001u, source_as());
    EXPECT_EQ(1'600'000'000, state_->mtime);  // so that the next check tries again
    EXPECT_EQ(uptime + 600'001, state_->next_check);
    file_.replace("65009-192.0.2.0/24\n", 1'600'000'001);
    (void)look_up(uptime + 600'002);
    EXPECT_EQ(65009u, source_as());
}

std::string leaving(scratch_file& file) {
    return "Unable to reinit as helper using: " + std::string(file.path()) +
           ". Leaving old config\n";
}

TEST_F(AsHelper, AFileReducedToCommentsKeepsTheTables) {
    load("65001-192.0.2.0/24\n");
    file_.replace("# 65009-192.0.2.0/24\n", 1'600'000'001);
    EXPECT_EQ(leaving(file_), look_up(uptime + 300'001));
    EXPECT_EQ(65001u, source_as());
    // It is not read again before it changes.
    EXPECT_EQ(1'600'000'001, state_->mtime);
    EXPECT_EQ("", look_up(uptime + 2'000'000));
    file_.replace("65009-192.0.2.0/24\n", 1'600'000'002);
    (void)look_up(uptime + 3'000'000);
    EXPECT_EQ(65009u, source_as());
}

TEST_F(AsHelper, AFileWithAFaultyLineKeepsTheTables) {
    load("65001-192.0.2.0/24\n");
    file_.replace("65009-192.0.2.0/24\n65009 10.0.0.0/8\n", 1'600'000'001);
    EXPECT_EQ("AS Helper found invalid config line: 1\n" + leaving(file_),
              look_up(uptime + 300'001));
    EXPECT_EQ(65001u, source_as());
    EXPECT_EQ("", look_up(uptime + 2'000'000));
}

// The table keeps its time, so that it is not read, and not reported, with every flow.
TEST_F(AsHelper, ADirectoryInPlaceOfTheFileKeepsTheTables) {
    load("65001-192.0.2.0/24\n");
    const std::string path = file_.path();
    file_.remove();
    ASSERT_EQ(0, mkdir(file_.path(), 0700));
    EXPECT_EQ("Unable to read " + path + ": Is a directory\n" + leaving(file_),
              look_up(uptime + 300'001));
    EXPECT_EQ(65001u, source_as());
    EXPECT_EQ("", look_up(uptime + 2'000'000));
    ASSERT_EQ(0, rmdir(file_.path()));
}

TEST_F(AsHelper, AFileWithANameKeepsTheTables) {
    load("65001-192.0.2.0/24\n");
    file_.replace("65009-host.example/24\n", 1'600'000'001);
    EXPECT_EQ("Unable to get addr: host.example\n" + leaving(file_), look_up(uptime + 300'001));
    EXPECT_EQ(65001u, source_as());
}

TEST_F(AsHelper, AReloadMayDropOneFamily) {
    load("65001-192.0.2.0/24\n");
    file_.replace("65002-::/0\n", 1'600'000'001);
    EXPECT_EQ("", look_up(uptime + 300'001));
    EXPECT_EQ(0u, source_as());
    flow_.l3protocol = 6;
    EXPECT_EQ(65002u, source_as());
}

TEST_F(AsHelper, TimesAreUnsigned) {
    load("65001-192.0.2.0/24\n");
    file_.replace("65009-192.0.2.0/24\n", 1'600'000'001);
    (void)look_up(0x8000'0000'0000'0000);
    EXPECT_EQ(65009u, source_as());
}

// ---- Under traffic

// Version n of the table gives every network the number 100,000 * n + its place.
std::string version(uint32_t n) {
    std::string content;
    for (uint32_t place = 0; place < 200; ++place)
        content +=
            std::to_string(100'000 * n + place) + "-10." + std::to_string(place) + ".0.0/16\n";
    return content;
}

TEST_F(AsHelper, EveryFlowCarriesTheOldNumberOrTheNewWhileTheFileChanges) {
    constexpr uint32_t versions = 40;
    load(version(1));
    std::atomic<uint32_t> seen = 1;
    std::thread writer([&] {
        for (uint32_t n = 2; n <= versions; ++n) {
            file_.replace(version(n), 1'600'000'000 + n);
            while (seen < n)
                std::this_thread::yield();
        }
    });
    uint64_t end = uptime;
    uint32_t last = 1;
    uint64_t flows = 0;
    for (; last < versions; ++flows) {
        const uint32_t place = static_cast<uint32_t>(flows % 200);
        flow_.ipv4 = {0x0A000001 | place << 16, 0x0A000002 | (199 - place) << 16, 0};
        flow_.end = end += 100'000;
        (void)as_helper_lookup(state_, &flow_);
        const uint32_t n = state_->src_as / 100'000;
        const bool is_old_or_new = (n == last || n == last + 1) &&
                                   state_->src_as == 100'000 * n + place &&
                                   state_->dst_as == 100'000 * n + 199 - place;
        EXPECT_TRUE(is_old_or_new) << state_->src_as << " and " << state_->dst_as << " for place "
                                   << place << " after version " << last;
        if (!is_old_or_new)
            break;
        seen = last = n;
    }
    seen = versions;
    writer.join();
    EXPECT_EQ(versions, last);
    EXPECT_LT(versions, flows);
}

}  // namespace
