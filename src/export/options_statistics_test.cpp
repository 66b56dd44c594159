#include "export/options_statistics.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "kestrelexp/metrics.h"

namespace kestrel {
namespace {

void count(const char* name, const char* labels, uint64_t value) {
    const metric_row row = {name, "", nullptr, METRIC_COUNTER};
    metric_add(metrics_register(&row, 1, labels), value);
}

void gauge(const char* name, uint64_t value) {
    const metric_row row = {name, "", nullptr, METRIC_GAUGE};
    metric_set(metrics_register(&row, 1, nullptr), value);
}

// What the metrics of a probe may be, of which each counts in one place only.
TEST(OptionsStatistics, AreTheExportsOwnCountersAndThoseOfTheProbe) {
    const char* const own = "export=\"ipfix-1\"";
    const char* const other = "export=\"ipfix-10\"";
    for (const auto& [label, factor] : {std::pair{own, 1U}, {other, 1000U}}) {
        count("kestrelexp_export_bytes_total", label, 50 * factor);
        count("kestrelexp_export_messages_total", label, 5 * factor);
        count("kestrelexp_export_records_total", label, 7 * factor);
    }
    count("kestrelexp_export_bytes_total", own, 1);  // of a second writer
    for (const char* reason : {",reason=\"filter\"", ",reason=\"send\""}) {
        const std::string labels = std::string(own) + reason;
        count("kestrelexp_export_lost_records_total", labels.c_str(), 2);
        count("kestrelexp_export_lost_packets_total", labels.c_str(), 4);
    }
    count("kestrelexp_capture_packets_total", "input=\"pcap\"", 100);
    count("kestrelexp_capture_bytes_total", "input=\"pcap\"", 100'000);
    count("kestrelexp_handed_records_total", nullptr, 12);
    options_statistics found = read_statistics(own);
    EXPECT_EQ(found.sent[0], 51U);
    EXPECT_EQ(found.sent[1], 5U);
    EXPECT_EQ(found.sent[2], 7U);
    EXPECT_EQ(found.unsent[0], 4U);
    EXPECT_EQ(found.unsent[1], 8U);
    // Finished flows pass the cache by: what was captured is what they have.
    EXPECT_EQ(found.unsent[2], 8'000U);
    EXPECT_EQ(found.observed[0], 12U);
    EXPECT_EQ(found.observed[1], 0U);

    count("kestrelexp_cache_packets_total", nullptr, 80);
    count("kestrelexp_cache_bytes_total", nullptr, 4'020);
    count("kestrelexp_cache_removed_flows_total", "reason=\"active\"", 6);
    count("kestrelexp_cache_removed_flows_total", "reason=\"forced\"", 7);
    gauge("kestrelexp_cache_flows", 3);
    count("kestrelexp_capture_dropped_packets_total", "input=\"pcap\",stage=\"ring\"", 20);
    count("kestrelexp_capture_dropped_packets_total", "input=\"pcap\",stage=\"card\"", 5);
    count("kestrelexp_capture_sampled_out_packets_total", "input=\"pcap\"", 1'000);
    count("kestrelexp_parser_discarded_packets_total", "reason=\"not_ip\"", 500);
    count("kestrelexp_parser_discarded_packets_total", "reason=\"truncated\"", 2);
    count("kestrelexp_parser_discarded_packets_total", "reason=\"ip_version\"", 1);
    found = read_statistics(own);
    EXPECT_EQ(found.observed[0], 16U);
    EXPECT_EQ(found.observed[1], 28U);
    EXPECT_EQ(found.unsent[2], 402U);  // 50.25 bytes each
}

// One record of 3 packets was sent, to each of two; one of 5 was kept back, from both.
TEST(OptionsStatistics, WhatIsKeptBackInParallelIsKeptBackFromEachCollector) {
    const char* const one = "export=\"group-0\",collector=\"1\"";
    count("kestrelexp_export_records_total", one, 1);
    count("kestrelexp_export_lost_records_total", "export=\"group-0\",reason=\"sampling\"", 1);
    count("kestrelexp_export_lost_packets_total", "export=\"group-0\",reason=\"sampling\"", 5);
    EXPECT_EQ(read_statistics(one).unsent[0], 0U);  // not in parallel: whose it was is not known
    const metric_row copies = {"kestrelexp_export_copies", "", nullptr, METRIC_GAUGE};
    metric_set(metrics_register(&copies, 1, "export=\"group-0\""), 2);
    EXPECT_EQ(read_statistics(one).unsent[0], 1U);
    EXPECT_EQ(read_statistics(one).unsent[1], 5U);
}

}  // namespace
}  // namespace kestrel
