#include "base/counters.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

enum class jar_metric { apples, pears, lids, count };

constexpr metric_row jar_rows[] = {
    {"test_fruit_total", "Fruit in jars.", "kind=\"apple\"", METRIC_COUNTER},
    {"test_fruit_total", "Not asked.", "kind=\"pear\"", METRIC_COUNTER},
    {"test_lids", "Lids at hand.", nullptr, METRIC_GAUGE},
};

using samples = std::vector<std::pair<std::string, uint64_t>>;

// The metrics whose name begins with the prefix, as name{labels}.
samples look(const std::string& prefix) {
    std::pair<const std::string&, samples> seen{prefix, {}};
    metrics_snapshot(
        [](void* context, const metric_sample* sample) {
            auto& [wanted, found] = *static_cast<std::pair<const std::string&, samples>*>(context);
            const std::string name = sample->name;
            if (name.starts_with(wanted))
                found.emplace_back(name + "{" + sample->labels + "}", sample->value);
        },
        &seen);
    return seen.second;
}

TEST(Counters, ASnapshotShowsEveryRowWithTheTablesLabelsInFrontOfItsOwn) {
    const counter_block<jar_metric> jar(jar_rows, "shelf=\"1\"");
    jar.add(jar_metric::apples, 3);
    jar.add(jar_metric::apples);
    jar.add(jar_metric::pears, 2);
    jar.set(jar_metric::lids, 9);
    jar.set(jar_metric::lids, 5);
    EXPECT_EQ(metrics_sum("test_fruit_total", "shelf=\"1\""), 6u);
    EXPECT_EQ(metrics_sum("test_fruit_total", "shelf=\"1\",kind=\"pear\""), 2u);
    EXPECT_EQ(metrics_sum("test_lids", "shelf=\"1\""), 5u);
    EXPECT_EQ(jar.value(jar_metric::apples), 4u);
}

TEST(Counters, LabelsAreComparedWhole) {
    const counter_block<jar_metric> first(jar_rows, "row=\"a\"");
    first.add(jar_metric::apples, 7);
    EXPECT_EQ(metrics_sum("test_fruit_total", "row=\"a\",kind=\"appl"), 0u);
    EXPECT_EQ(metrics_sum("test_fruit_total", "row="), 0u);
    EXPECT_TRUE(metrics_known("test_fruit_total", "row=\"a\""));
    EXPECT_FALSE(metrics_known("test_fruit_total", "row=\"b\""));
    EXPECT_FALSE(metrics_known("test_fruit", ""));
}

TEST(Counters, MetricsOfOneNameAreVisitedTogetherAndInOrderOfRegistration) {
    constexpr metric_row one[] = {{"order_b_total", "B.", "n=\"1\"", METRIC_COUNTER},
                                  {"order_a_total", "A.", nullptr, METRIC_COUNTER}};
    constexpr metric_row two[] = {{"order_b_total", "B.", "n=\"2\"", METRIC_COUNTER}};
    metric_add(metrics_register(one, 2, nullptr) + 1, 8);
    metric_add(metrics_register(two, 1, ""), 6);
    EXPECT_EQ(look("order_"), (samples{{"order_b_total{n=\"1\"}", 0},
                                       {"order_b_total{n=\"2\"}", 6},
                                       {"order_a_total{}", 8}}));
}

TEST(Counters, TheFirstRowOfANameGivesItsHelp) {
    const counter_block<jar_metric> jar(jar_rows, "help=\"1\"");
    std::map<std::string, std::string> help;
    metrics_snapshot(
        [](void* context, const metric_sample* sample) {
            (*static_cast<std::map<std::string, std::string>*>(context))[sample->name] =
                sample->help;
        },
        &help);
    EXPECT_EQ(help["test_fruit_total"], "Fruit in jars.");
    EXPECT_EQ(help["test_lids"], "Lids at hand.");
}

TEST(Counters, BlocksOfSeveralThreadsAreSummedWhileTheyCount) {
    constexpr unsigned thread_count = 4;
    constexpr uint64_t additions = 200'000;
    constexpr metric_row row[] = {{"summed_total", "Sum.", nullptr, METRIC_COUNTER}};
    std::atomic<bool> is_done = false;
    std::thread reader([&is_done] {
        uint64_t last = 0;
        while (!is_done.load(std::memory_order_relaxed)) {
            const uint64_t sum = metrics_sum("summed_total", "");
            EXPECT_GE(sum, last);
            last = sum;
        }
    });
    std::vector<std::thread> writers;
    for (unsigned n = 0; n < thread_count; ++n)
        writers.emplace_back([&row] {
            metric_cell* const cell = metrics_register(row, 1, nullptr);
            for (uint64_t i = 0; i < additions; ++i)
                metric_add(cell, 3);
        });
    for (std::thread& writer : writers)
        writer.join();
    is_done.store(true, std::memory_order_relaxed);
    reader.join();
    EXPECT_EQ(look("summed_"), (samples{{"summed_total{}", thread_count * additions * 3}}));
}

TEST(Counters, BlocksShareNoCacheLine) {
    constexpr metric_row row[] = {{"apart_total", "Apart.", nullptr, METRIC_COUNTER}};
    const auto first = reinterpret_cast<uintptr_t>(metrics_register(row, 1, nullptr));
    const auto second = reinterpret_cast<uintptr_t>(metrics_register(row, 1, nullptr));
    EXPECT_EQ(first % 64, 0u);
    EXPECT_NE(first / 64, second / 64);
}

TEST(Counters, LabelValuesAreEscaped) {
    EXPECT_EQ(metric_label("export", "ipfix-0"), "export=\"ipfix-0\"");
    EXPECT_EQ(metric_label("k", "a\\b\"c\nd"), "k=\"a\\\\b\\\"c\\nd\"");
}

TEST(Counters, TheLabelOfAPluginHoldsWhileItsScopeDoes) {
    EXPECT_STREQ(metrics_label(), "");
    {
        const metrics_label_scope scope(metric_label("export", "null-1"));
        EXPECT_STREQ(metrics_label(), "export=\"null-1\"");
        {
            const metrics_label_scope inner("collector=\"2\"");
            EXPECT_STREQ(metrics_label(), "collector=\"2\"");
        }
        EXPECT_STREQ(metrics_label(), "export=\"null-1\"");
    }
    EXPECT_STREQ(metrics_label(), "");
}

using CountersDeathTest = testing::Test;

TEST(CountersDeathTest, AMetricOfTwoTypesEndsTheProgram) {
    constexpr metric_row counter[] = {{"two_types", "T.", nullptr, METRIC_COUNTER}};
    constexpr metric_row gauge[] = {{"two_types", "T.", nullptr, METRIC_GAUGE}};
    EXPECT_EXIT(
        {
            metrics_register(counter, 1, nullptr);
            metrics_register(gauge, 1, nullptr);
        },
        testing::ExitedWithCode(255), "Metrics: two_types is registered with two types");
}

TEST(CountersDeathTest, ABadNameEndsTheProgram) {
    for (const char* name : {"", "1st", "a-b", "a b", "caf\xC3\xA9"}) {
        const metric_row row[] = {{name, "H.", nullptr, METRIC_COUNTER}};
        EXPECT_EXIT(metrics_register(row, 1, nullptr), testing::ExitedWithCode(255),
                    std::string("Metrics: bad name: ") + name);
    }
}

}  // namespace
}  // namespace kestrel
