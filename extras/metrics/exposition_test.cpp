#include "exposition.h"

#include <gtest/gtest.h>

#include "kestrelexp/metrics.h"

namespace metrics {
namespace {

TEST(Exposition, BytesThatAreNoUtf8AreReplaced) {
    const reading_list list = {
        {"odd_total", "H\xFF.", {{"export", "caf\xC3\xA9 \xFE\"\\-0"}}, METRIC_COUNTER, 3}};
    EXPECT_EQ(
        "# HELP odd_total H\uFFFD.\n"
        "# TYPE odd_total counter\n"
        "odd_total{export=\"caf\u00E9 \uFFFD\\\"\\\\-0\"} 3\n",
        exposition_text(list, {}));
}

}  // namespace
}  // namespace metrics
