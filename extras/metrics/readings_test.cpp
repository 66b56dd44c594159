#include "readings.h"

#include <gtest/gtest.h>

#include "exposition.h"
#include "kestrelexp/metrics.h"
#include "losses.h"
#include "readiness.h"

namespace {

using metrics::label;
using metrics::parse_labels;
using metrics::reading;
using metrics::reading_list;
using metrics::reason_count;

reading counted(const char* name, std::vector<label> labels, uint64_t value) {
    return {name, "Help.", std::move(labels), METRIC_COUNTER, value};
}

reading gauge(const char* name, std::vector<label> labels, uint64_t value) {
    return {name, "Help.", std::move(labels), METRIC_GAUGE, value};
}

std::string text_of(const std::vector<label>& labels) {
    std::string text;
    for (const label& one : labels)
        text += "<" + one.name + "|" + one.value + ">";
    return text;
}

std::string text_of(const std::vector<reason_count>& counts) {
    std::string text;
    for (const reason_count& one : counts)
        text += one.reason + " " + std::to_string(one.packets) + (one.is_loss ? "! " : " ");
    return text;
}

TEST(Labels, AreSplit) {
    EXPECT_EQ(text_of(parse_labels("")), "");
    EXPECT_EQ(text_of(parse_labels(R"(a="b")")), "<a|b>");
    EXPECT_EQ(text_of(parse_labels(R"(export="ipfix-0",reason="a,b=c")")),
              "<export|ipfix-0><reason|a,b=c>");
    EXPECT_EQ(text_of(parse_labels(R"(a="")")), "<a|>");
}

TEST(Labels, LoseTheirEscapes) {
    EXPECT_EQ(text_of(parse_labels(R"(a="x\"y",b="\\n\n.")")), "<a|x\"y><b|\\n\n.>");
}

TEST(Labels, EndWhereTheyCannotBeRead) {
    EXPECT_EQ(text_of(parse_labels("a")), "");
    EXPECT_EQ(text_of(parse_labels("a=b")), "");
    EXPECT_EQ(text_of(parse_labels(R"(a="b)")), "");
    EXPECT_EQ(text_of(parse_labels(R"(a="b\)")), "");
    EXPECT_EQ(text_of(parse_labels(R"(a="b"c="d")")), "<a|b>");
    EXPECT_EQ(text_of(parse_labels(R"(a="b",)")), "<a|b>");
}

TEST(Readings, AreSummedUpByNameAndLabel) {
    const reading_list list{counted("x", {{"k", "1"}}, 3), counted("x", {{"k", "2"}}, 4),
                            counted("x", {{"k", "1"}, {"m", "z"}}, 5), counted("xy", {}, 100)};
    EXPECT_EQ(metrics::sum_of(list, "x"), 12U);
    EXPECT_EQ(metrics::sum_of(list, "x", metrics::wanted_label{"k", "1"}), 8U);
    EXPECT_EQ(metrics::sum_of(list, "x", metrics::wanted_label{"k", "3"}), std::nullopt);
    EXPECT_EQ(metrics::sum_of(list, "none"), std::nullopt);
    EXPECT_EQ(metrics::values_of_label(list, "x", "k"), (std::vector<std::string>{"1", "2"}));
}

TEST(Readings, ComeFromTheProgram) {
    static constexpr metric_row rows[] = {
        {"readings_test_total", "Help of the test.", "place=\"here\"", METRIC_COUNTER}};
    metric_cell* const cells = metrics_register(rows, 1, "export=\"a-0\"");
    metric_add(cells, 42);
    const reading_list list = metrics::take_readings();
    const auto found = std::find_if(list.begin(), list.end(), [](const reading& one) {
        return one.name == "readings_test_total";
    });
    ASSERT_NE(found, list.end());
    EXPECT_EQ(found->value, 42U);
    EXPECT_EQ(found->help, "Help of the test.");
    EXPECT_EQ(found->label_value("export"), "a-0");
    EXPECT_EQ(found->label_value("place"), "here");
    EXPECT_EQ(found->label_value("reason"), "");
}

TEST(Exposition, HasAFamilyForEachNameAndBaseUnits) {
    const reading_list list{counted("a_total", {{"k", "x\"y"}}, 1),
                            counted("a_total", {{"k", "z"}}, 2), gauge("b", {}, 18),
                            counted("c_wait_microseconds_total", {{"ring", "r"}}, 2'500'000),
                            gauge("d_microseconds", {}, 1'500)};
    EXPECT_EQ(metrics::exposition_text(list, {{"process_x", "Of the process.", false, 1.5}}),
              "# HELP a_total Help.\n"
              "# TYPE a_total counter\n"
              "a_total{k=\"x\\\"y\"} 1\n"
              "a_total{k=\"z\"} 2\n"
              "# HELP b Help.\n"
              "# TYPE b gauge\n"
              "b 18\n"
              "# HELP c_wait_seconds_total Help.\n"
              "# TYPE c_wait_seconds_total counter\n"
              "c_wait_seconds_total{ring=\"r\"} 2.5\n"
              "# HELP d_seconds Help.\n"
              "# TYPE d_seconds gauge\n"
              "d_seconds 0.0015\n"
              "# HELP process_x Of the process.\n"
              "# TYPE process_x gauge\n"
              "process_x 1.5\n");
}

TEST(Exposition, WritesLargeCountersInWhole) {
    const std::string text =
        metrics::exposition_text({counted("a_total", {}, 9'007'199'254'740'991)}, {});
    EXPECT_NE(text.find("\na_total 9007199254740991\n"), std::string::npos) << text;
}

TEST(Readiness, NamesWhatIsNotUp) {
    const reading_list list{gauge("kestrelexp_build_info", {{"version", "1"}}, 1),
                            gauge("kestrelexp_capture_up", {{"input", "pcap"}}, 0),
                            gauge("kestrelexp_export_up", {{"export", "ipfix-0"}}, 1),
                            gauge("kestrelexp_export_up", {{"export", "netflow-v5-1"}}, 0)};
    const std::vector<metrics::missing_part> missing = metrics::missing_parts(list);
    ASSERT_EQ(missing.size(), 2U);
    EXPECT_EQ(missing[0].kind, "input");
    EXPECT_EQ(missing[0].name, "pcap");
    EXPECT_EQ(missing[1].kind, "export");
    EXPECT_EQ(missing[1].name, "netflow-v5-1");
}

TEST(Readiness, AsksForNothingThatIsNotCounted) {
    EXPECT_TRUE(metrics::missing_parts({gauge("kestrelexp_build_info", {{"version", "1"}}, 1),
                                        counted("a_total", {}, 0)})
                    .empty());
}

TEST(Readiness, WaitsForTheProgramToStart) {
    const std::vector<metrics::missing_part> missing =
        metrics::missing_parts({gauge("kestrelexp_capture_up", {{"input", "pcap"}}, 1)});
    ASSERT_EQ(missing.size(), 1U);
    EXPECT_EQ(missing[0].kind, "program");
    EXPECT_EQ(missing[0].name, "kestrelexp");
}

TEST(Losses, AreToldFromWhatWasAskedFor) {
    const char* const dropped = "kestrelexp_capture_dropped_packets_total";
    const char* const lost = "kestrelexp_export_lost_packets_total";
    const reading_list list{
        counted(dropped, {{"input", "pcap"}, {"stage", "ring"}}, 5),
        counted(dropped, {{"input", "pcap"}, {"stage", "card"}}, 0),
        counted("kestrelexp_capture_sampled_out_packets_total", {{"input", "pcap"}}, 9),
        counted("kestrelexp_parser_discarded_packets_total", {{"reason", "not_ip"}}, 2),
        counted("kestrelexp_parser_discarded_packets_total", {{"reason", "truncated"}}, 0),
        counted(lost, {{"export", "ipfix-0"}, {"reason", "filter"}}, 11),
        counted(lost, {{"export", "ipfix-0"}, {"reason", "send"}}, 13),
        counted(lost, {{"export", "null-1"}, {"reason", "send"}}, 17)};
    EXPECT_EQ(text_of(metrics::capture_losses(list)), "ring 5! sampling 9 ");
    EXPECT_EQ(text_of(metrics::parser_losses(list)), "not_ip 2 ");
    EXPECT_EQ(text_of(metrics::export_losses(list, "ipfix-0")), "filter 11 send 13! ");
    EXPECT_EQ(metrics::all_lost_packets(list), 35U);
}

TEST(Collectors, OfAnExportAreTakenTogether) {
    const char* const lost = "kestrelexp_export_lost_packets_total";
    const char* const sent = "kestrelexp_export_last_success_timestamp_seconds";
    const reading_list list{
        counted(lost, {{"export", "ipfix-0"}, {"collector", "0"}, {"reason", "send"}}, 2),
        counted(lost, {{"export", "ipfix-0"}, {"collector", "1"}, {"reason", "send"}}, 3),
        gauge(sent, {{"export", "ipfix-0"}, {"collector", "0"}}, 100),
        gauge(sent, {{"export", "ipfix-0"}, {"collector", "1"}}, 90)};
    EXPECT_EQ(text_of(metrics::export_losses(list, "ipfix-0")), "send 5! ");
    EXPECT_EQ(metrics::greatest_of(list, sent, {"export", "ipfix-0"}), 100U);
    EXPECT_EQ(metrics::least_of(list, sent, {"export", "ipfix-0"}), 90U);
    EXPECT_EQ(metrics::least_of(list, sent, {"export", "null-1"}), std::nullopt);
}

}  // namespace
