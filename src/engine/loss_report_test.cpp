#include "engine/loss_report.h"

#include <gtest/gtest.h>

#include <string>

#include "kestrelexp/service.h"

namespace {

using kestrel::loss_report;

constexpr uint64_t second = 1'000'000'000;

class LossReport : public testing::Test {
  protected:
    void SetUp() override { verbose_level = 0; }
    void TearDown() override { verbose_level = -1; }

    static metric_cell* cell(const char* name, const char* labels) {
        const metric_row row = {name, "", labels, METRIC_COUNTER};
        return metrics_register(&row, 1, nullptr);
    }
    std::string said_at(uint64_t uptime_s) {
        testing::internal::CaptureStderr();
        report_.say_if_due(uptime_s * second);
        return testing::internal::GetCapturedStderr();
    }

    loss_report report_{1000 * second};
};

TEST_F(LossReport, SaysOneLineInTenSecondsForEachCounterThatHasGrown) {
    metric_cell* const ring =
        cell("kestrelexp_capture_dropped_packets_total", "input=\"r\",stage=\"ring\"");
    metric_cell* const version =
        cell("kestrelexp_export_lost_packets_total", "export=\"r-0\",reason=\"ip_version\"");
    (void)said_at(1010);  // what other tests have lost
    metric_add(ring, 5);
    metric_add(version, 9);
    EXPECT_EQ("", said_at(1019));
    EXPECT_EQ(
        "VERBOSE: 0:Packets lost in the last 10 s: 5, "
        "kestrelexp_capture_dropped_packets_total{input=\"r\",stage=\"ring\"}\n"
        "VERBOSE: 0:Packets lost in the last 10 s: 9, "
        "kestrelexp_export_lost_packets_total{export=\"r-0\",reason=\"ip_version\"}\n",
        said_at(1020));
    metric_add(ring, 2);
    EXPECT_EQ(
        "VERBOSE: 0:Packets lost in the last 12 s: 2, "
        "kestrelexp_capture_dropped_packets_total{input=\"r\",stage=\"ring\"}\n",
        said_at(1032));
    EXPECT_EQ("", said_at(1050));
}

TEST_F(LossReport, CountersWithoutLossesTakeNoPlace) {
    metric_cell* last = nullptr;
    for (int number = 0; number < 300; ++number) {
        const std::string labels = "export=\"many-" + std::to_string(number) + "\",reason=\"send\"";
        last = cell("kestrelexp_export_lost_packets_total", labels.c_str());
    }
    (void)said_at(1010);
    metric_add(last, 7);
    EXPECT_EQ(
        "VERBOSE: 0:Packets lost in the last 10 s: 7, "
        "kestrelexp_export_lost_packets_total{export=\"many-299\",reason=\"send\"}\n",
        said_at(1020));
}

TEST_F(LossReport, WhatTheOperatorLeavesOutIsNoLoss) {
    (void)said_at(1010);
    metric_add(cell("kestrelexp_export_lost_packets_total", "export=\"w-0\",reason=\"filter\""), 3);
    metric_add(cell("kestrelexp_export_lost_packets_total", "export=\"w-0\",reason=\"sampling\""),
               4);
    metric_add(cell("kestrelexp_parser_discarded_packets_total", "reason=\"not_ip\""), 5);
    EXPECT_EQ("", said_at(1020));
}

TEST_F(LossReport, IsSilentByDefault) {
    verbose_level = -1;
    metric_add(cell("kestrelexp_export_lost_packets_total", "export=\"s-0\",reason=\"send\""), 3);
    EXPECT_EQ("", said_at(1020));
}

}  // namespace
