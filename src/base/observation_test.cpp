#include "base/observation.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

using list = std::vector<observed_interface>;

void tell(const list& interfaces) {
    interface_update update;
    for (const observed_interface& each : interfaces)
        update.tell(each.number, each.name.c_str(), each.description.c_str());
}

TEST(Observation, TheLastListIsTheOneThatCounts) {
    tell({{2, "eth0", "uplink"}, {3, "eth1", ""}});
    EXPECT_EQ(observed_interfaces(), (list{{2, "eth0", "uplink"}, {3, "eth1", ""}}));
    tell({{3, "eth1", ""}});
    EXPECT_EQ(observed_interfaces(), (list{{3, "eth1", ""}}));
    tell({});
    EXPECT_EQ(observed_interfaces(), list{});
}

TEST(Observation, OnlyAChangeHasANewVersion) {
    tell({{2, "eth0", "uplink"}});
    for (const list& next :
         {list{{3, "eth0", "uplink"}}, list{{3, "eth1", "uplink"}},
          list{{3, "eth1", "to the office"}}, list{{3, "eth1", "to the office"}, {4, "eth2", ""}},
          list{{3, "eth1", "to the office"}}, list{}}) {
        const uint32_t before = interfaces_version();
        tell(next);
        EXPECT_NE(interfaces_version(), before);
        const uint32_t after = interfaces_version();
        tell(next);
        EXPECT_EQ(interfaces_version(), after);
    }
}

TEST(Observation, AnExportsPlaceIsToldWhileItIsInitialised) {
    {
        const export_place_scope scope(
            {.position = 2, .sampling_rate = 10, .input_interface = 5, .output_interface = 6});
        EXPECT_EQ(this_export().position, 2U);
        EXPECT_EQ(this_export().sampling_rate, 10U);
        EXPECT_EQ(this_export().input_interface, 5);
        EXPECT_EQ(this_export().output_interface, 6);
    }
    EXPECT_EQ(this_export().position, 0U);
    EXPECT_EQ(this_export().sampling_rate, 0U);
    EXPECT_EQ(this_export().input_interface, -1);
    EXPECT_EQ(this_export().output_interface, -1);
}

}  // namespace
}  // namespace kestrel
