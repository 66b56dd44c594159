// What tests of template exporters start from: a clock that they drive, template files of their
// own, a collector on a loopback UDP port, and a flow.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/stop.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"
#include "tests/support/lifelong.h"
#include "tests/support/udp_collector.h"

namespace kestrel_test {

using bytes = std::vector<uint8_t>;

inline constexpr uint64_t second = 1'000'000'000;
inline constexpr uint64_t ms = 1'000'000;
// The start-up time of these tests; they begin ten seconds later.
inline constexpr uint64_t startup = 1'600'000'000 * second;

inline uint64_t wall_ns;
inline uint64_t uptime_ns;
inline std::vector<uint64_t> sleeps_ns;
inline void (*during_sleep)();  // what happens while somebody sleeps; may be null

inline uint64_t big_endian(const bytes& packet, size_t offset, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i)
        value = value << 8 | packet.at(offset + i);
    return value;
}

inline bytes join(std::initializer_list<bytes> parts) {
    bytes whole;
    for (const bytes& part : parts)
        whole.insert(whole.end(), part.begin(), part.end());
    return whole;
}

class export_fixture : public testing::Test {
  protected:
    void SetUp() override {
        static constexpr kestrel::clock_source clocks = {[] { return wall_ns; },
                                                         [] { return uptime_ns; },
                                                         [](uint64_t ns) {
                                                             sleeps_ns.push_back(ns);
                                                             if (during_sleep)
                                                                 during_sleep();
                                                         }};
        wall_ns = startup;
        uptime_ns = 0;
        sleeps_ns.clear();
        during_sleep = nullptr;
        kestrel::set_clock_source(&clocks);
        kestrel::stop_request = false;
        timer_startup_time_update();
        advance(10 * second);
        flow_.start = startup + 1500 * ms;
        flow_.end = startup + 9999 * ms;
        flow_.packets = 0x01020304;
        flow_.bytes = 0x05060708;
        flow_.inputsnmp = 0x1112;
        flow_.outputsnmp = 0x1314;
        flow_.l3protocol = 4;
        flow_.ipv4 = {0xC0000201, 0x0A0B0C0D, 0xB8};
        flow_.l4protocol = 6;
        flow_.srcport = 0x2122;
        flow_.dstport = 0x2324;
        flow_.tcpflags = 0x1B;
        flow_.icmptypecode = 0x2526;
        table_ = getter_base_init();
    }

    void TearDown() override {
        keep(table_);  // exporters borrow it
        verbose_level = -1;
        kestrel::set_clock_source(nullptr);
        kestrel::stop_request = false;
        timer_startup_time_update();
        for (const std::string& path : files_)
            (void)unlink(path.c_str());
    }

    static void advance(uint64_t ns) {
        wall_ns += ns;
        uptime_ns += ns;
    }

    // A template file that goes with the test; returns its path.
    std::string write_file(const std::string& text) {
        files_.push_back(testing::TempDir() + "templates." + std::to_string(getpid()) + "." +
                         std::to_string(files_.size()));
        std::ofstream(files_.back()) << text;
        return files_.back();
    }

    template <typename Action>
    static std::string messages_of(Action action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }

    bytes receive() { return collector_->receive(); }

    std::unique_ptr<udp_collector> collector_ = std::make_unique<udp_collector>();
    getter* table_ = nullptr;
    flow_record flow_ = {};

  private:
    std::vector<std::string> files_;
};

}  // namespace kestrel_test
