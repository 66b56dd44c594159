// The interfaces of options records under the numbers that flow records carry. What a collector
// gets is tested in export_options_test.cpp.
#include "export/options_records.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrel {
namespace {

using interface_list = std::vector<observed_interface>;

TEST(OptionsInterfaces, AreTheInputsOwnWithoutOthers) {
    const interface_list observed = {{0, "eth0", "uplink"}};
    EXPECT_EQ(as_exported(observed, {}), observed);
    EXPECT_EQ(as_exported({}, {.input_interface = 5}), interface_list{});
}

TEST(OptionsInterfaces, NumbersThatAreGivenStandForAllOfThem) {
    const interface_list one = {{0, "eth0", "uplink"}};
    EXPECT_EQ(as_exported(one, {.input_interface = 5}), (interface_list{{5, "eth0", "uplink"}}));
    EXPECT_EQ(as_exported(one, {.output_interface = 0}), (interface_list{{0, "eth0", "uplink"}}));
    EXPECT_EQ(as_exported(one, {.input_interface = 5, .output_interface = 6}),
              (interface_list{{5, "eth0", "uplink"}, {6, "eth0", "uplink"}}));
    EXPECT_EQ(as_exported(one, {.input_interface = 5, .output_interface = 5}),
              (interface_list{{5, "eth0", "uplink"}}));
    const interface_list three = {{2, "eth0", "a"}, {3, "eth1", ""}, {4, "eth2", "c"}};
    EXPECT_EQ(as_exported(three, {.input_interface = 7, .output_interface = 8}),
              (interface_list{{7, "eth0,eth1,eth2", "a,c"}, {8, "eth0,eth1,eth2", "a,c"}}));
    // Frames that were sent still have the numbers of their interfaces.
    EXPECT_EQ(as_exported(three, {.input_interface = 3}),
              (interface_list{{3, "eth0,eth1,eth2", "a,c"}, {2, "eth0", "a"}, {4, "eth2", "c"}}));
}

}  // namespace
}  // namespace kestrel
