// What the server goes by, without the server: requests, parameters, connections, /proc.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <string>

#include "connections.h"
#include "page_files.h"
#include "process_readings.h"
#include "request.h"
#include "settings.h"

namespace {

using metrics::target;
using metrics::target_of;

TEST(Request, EachPathHasItsTarget) {
    EXPECT_EQ(target_of("GET", "/metrics"), target::metrics);
    EXPECT_EQ(target_of("HEAD", "/metrics"), target::metrics);
    EXPECT_EQ(target_of("GET", "/healthz"), target::health);
    EXPECT_EQ(target_of("GET", "/readyz"), target::readiness);
    EXPECT_EQ(target_of("GET", "/api/summary"), target::summary);
    EXPECT_EQ(target_of("GET", "/"), target::page_file);
    EXPECT_EQ(target_of("GET", "/page.js"), target::page_file);
}

TEST(Request, OtherPathsAreNotFoundWhateverTheMethod) {
    for (const char* path : {"", "//", "/metrics/", "/Metrics", "/../etc/passwd", "/index.html"}) {
        EXPECT_EQ(target_of("GET", path), target::not_found) << path;
        EXPECT_EQ(target_of("POST", path), target::not_found) << path;
    }
}

TEST(Request, OtherMethodsAreRefused) {
    for (const char* method : {"POST", "PUT", "DELETE", "OPTIONS", "get", "", "GET "})
        EXPECT_EQ(target_of(method, "/metrics"), target::wrong_method) << method;
}

TEST(Request, ATimeIsANumberThatIsNotNegative) {
    EXPECT_EQ(metrics::parse_since("0"), 0.0);
    EXPECT_EQ(metrics::parse_since("1795318460.072"), 1795318460.072);
    for (const char* text : {"", "-1", "1x", "x", "nan", "inf", "1e999", " 1", "0x10"})
        EXPECT_EQ(metrics::parse_since(text), std::nullopt) << text;
}

TEST(PageFiles, AreWhole) {
    const metrics::page_file* index = metrics::find_page_file("/");
    ASSERT_NE(index, nullptr);
    EXPECT_TRUE(index->bytes.starts_with("<!DOCTYPE html>"));
    EXPECT_TRUE(index->bytes.ends_with("</html>\n"));
    EXPECT_EQ(metrics::find_page_file("/none"), nullptr);
}

bool settings_of(const char* text, metrics::listen_address& where) {
    static std::deque<std::string> texts;  // borrowed for the life of the program
    return metrics::read_settings(text == nullptr ? nullptr : texts.emplace_back(text).data(),
                                  where);
}

TEST(Settings, HaveDefaults) {
    metrics::listen_address where;
    ASSERT_TRUE(settings_of(nullptr, where));
    EXPECT_EQ(where.text, "127.0.0.1:9101");
    ASSERT_TRUE(settings_of("port=80", where));
    EXPECT_EQ(where.text, "127.0.0.1:80");
    ASSERT_TRUE(settings_of("port=9200,address=::1", where));
    EXPECT_EQ(where.text, "[::1]:9200");
    EXPECT_EQ(where.address.ss_family, AF_INET6);
}

TEST(Settings, AreRefusedWhenTheyAreNone) {
    metrics::listen_address where;
    for (const char* text : {"port=0", "port=65536", "port=-1", "port=1x", "port=x",
                             "address=localhost", "address=1.2.3", "address=::g", "port"})
        EXPECT_FALSE(settings_of(text, where)) << text;
}

TEST(Process, ItsNameMayHoldAnything) {
    const auto stat = metrics::parse_process_stat(
        "123 (a b) c) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 9000 4096 77 1 2 3\n");
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->start_ticks, 9000);
    EXPECT_EQ(stat->virtual_bytes, 4096);
    EXPECT_EQ(stat->resident_pages, 77);
    EXPECT_FALSE(metrics::parse_process_stat(""));
    EXPECT_FALSE(metrics::parse_process_stat("1 (a) S 1 2"));
}

TEST(Process, IsSeen) {
    const auto found = metrics::take_process_readings();
    ASSERT_EQ(found.size(), 6U);
    const auto now = static_cast<double>(time(nullptr));
    EXPECT_STREQ(found[5].name, "process_start_time_seconds");
    EXPECT_GT(found[5].value, now - 3600);
    EXPECT_LE(found[5].value, now + 2);
}

class Connections : public testing::Test {
  protected:
    using clock = metrics::connection_list::clock;

    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
    void TearDown() override {
        close(ends[0]);
        close(ends[1]);
    }
    bool is_cut_off() const {
        char byte;
        return recv(ends[1], &byte, 1, MSG_DONTWAIT) == 0;
    }

    int ends[2];
    metrics::connection_list list;
    const clock::time_point start{};
};

TEST_F(Connections, AreCutOffWhenARequestTakesTooLong) {
    list.open(ends[0], start);
    list.cut_off(start + std::chrono::seconds(30));
    EXPECT_FALSE(is_cut_off());
    list.cut_off(start + std::chrono::seconds(31));
    EXPECT_TRUE(is_cut_off());
}

TEST_F(Connections, HaveTimeAgainAfterAnAnswer) {
    list.open(ends[0], start);
    list.restart(ends[0], start + std::chrono::seconds(25));
    list.cut_off(start + std::chrono::seconds(50));
    EXPECT_FALSE(is_cut_off());
}

TEST_F(Connections, ThatAreClosedAreLeftAlone) {
    list.open(ends[0], start);
    list.close(ends[0]);
    list.cut_off(start + std::chrono::seconds(100));
    EXPECT_FALSE(is_cut_off());
}

}  // namespace
