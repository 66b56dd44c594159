// Not under the thread sanitizer: it is all one thread, and takes minutes there.
#include "tests/model/filter_model.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filter/filter_rules.h"
#include "tests/model/filter_check.h"
#include "tests/model/rule_generator.h"
#include "tests/support/text_file.h"

namespace {

using namespace kestrel_model;

constexpr unsigned good_files = 1000;
constexpr unsigned flows_per_file = 1000;

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

// What the reader of files hands out.
std::vector<std::string> kept(std::vector<std::string> lines) {
    std::erase_if(lines, [](const std::string& line) {
        return line.size() < 3 || line.find('#') != std::string::npos;
    });
    return lines;
}

// All that happened over all files, so that the test is known to be worth running.
filter_model::happenings total;

void add(const filter_model::happenings& h) {
    total.fast4_hits += h.fast4_hits;
    total.fast6_hits += h.fast6_hits;
    total.fast_misses += h.fast_misses;
    total.fast_refusals += h.fast_refusals;
    total.slow_keeps += h.slow_keeps;
    total.slow_refusals += h.slow_refusals;
    total.drops_at_once += h.drops_at_once;
    total.no_match += h.no_match;
}

void compare_verdicts(const filter_rules& rules, filter_model& model, uint64_t seed) {
    flow_generator flows(model, seed);
    for (unsigned i = 0; i < flows_per_file; ++i) {
        const model_flow flow = flows.next();
        ASSERT_EQ(model.test(flow), judge_with_program(rules, flow)) << describe_flow(flow);
    }
    add(model.happened);
}

// Returns whether the file was good.
bool compare_file(const std::vector<std::string>& lines, uint64_t seed) {
    SCOPED_TRACE(joined(lines));
    filter_model model;
    const bool expected = model.load(kept(lines));
    const kestrel_test::text_file file(joined(lines));
    testing::internal::CaptureStderr();
    const kestrel::filter_owner rules = kestrel::filter_load(file.path());
    EXPECT_EQ(joined(model.messages()), testing::internal::GetCapturedStderr());
    EXPECT_EQ(expected, rules != nullptr);
    if (!expected || !rules)
        return false;
    EXPECT_EQ("", compare_tables(*rules, model));
    compare_verdicts(*rules, model, seed);
    return true;
}

TEST(FilterModel, AgreesOnRandomFilesAndFlows) {
    rule_generator generator(20240611);
    unsigned good = 0;
    unsigned bad = 0;
    while (good < good_files && !HasFailure()) {
        ++(compare_file(generator.file(), good + bad) ? good : bad);
    }
    EXPECT_GT(bad, 50u);
    EXPECT_GT(total.fast4_hits, 20'000u);
    EXPECT_GT(total.fast6_hits, 10'000u);
    EXPECT_GT(total.fast_misses, 20'000u);
    EXPECT_GT(total.fast_refusals, 5'000u);
    EXPECT_GT(total.slow_keeps, 20'000u);
    EXPECT_GT(total.slow_refusals, 10'000u);
    EXPECT_GT(total.drops_at_once, 5'000u);
    EXPECT_GT(total.no_match, 20'000u);
}

}  // namespace
