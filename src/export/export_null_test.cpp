#include <gtest/gtest.h>

#include "kestrelexp/builtin.h"

namespace {

TEST(ExportNull, DescribesItself) {
    const plugin_description* description = exporter_null_desc();
    EXPECT_STREQ("null", description->name);
    EXPECT_STREQ("Null exporter. Passes flows to blackhole.\nNeed no parameters",
                 description->description);
    EXPECT_EQ(0, description->data_size);
}

TEST(ExportNull, InitNeverFails) {
    char params[] = "any=thing";
    EXPECT_EQ(reinterpret_cast<void*>(1), exporter_null_init(params, nullptr));
    EXPECT_EQ(reinterpret_cast<void*>(1), exporter_null_init(nullptr, nullptr));
}

TEST(ExportNull, FlowsAreTaken) {
    flow_record record = {};
    EXPECT_EQ(0u, exporter_null_export(exporter_null_init(nullptr, nullptr), &record));
    EXPECT_EQ(0u, exporter_null_flush(exporter_null_init(nullptr, nullptr)));
}

}  // namespace
