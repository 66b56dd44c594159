// Who gets which record. The literals are from a model in another language, but for the first
// preference, which is the first number of SplitMix64 after 0.
#include "export/collector_group.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/support/lifelong.h"

namespace kestrel {
namespace {

using positions = std::vector<size_t>;

TEST(CollectorGroup, PrefersByTheFlowAndThePosition) {
    EXPECT_EQ(0xE220A8397B1DCDAFu, preference(0, 0));
    EXPECT_EQ(0x6E789E6AA1B965F4u, preference(0, 1));
    EXPECT_EQ(0x06C45D188009454Fu, preference(0, 2));
}

// Of three collectors, for the flows 0 to 11.
positions chosen_for_twelve(std::array<bool, 3> up) {
    positions chosen;
    for (uint64_t identity = 0; identity < 12; ++identity)
        chosen.push_back(choose_by_flow(identity, 3, [&up](size_t n) { return up[n]; }));
    return chosen;
}

TEST(CollectorGroup, EachFlowHasACollectorOfItsOwn) {
    EXPECT_EQ((positions{0, 2, 1, 1, 1, 1, 0, 2, 2, 1, 1, 2}),
              chosen_for_twelve({true, true, true}));
}

TEST(CollectorGroup, OnlyTheFlowsOfACollectorThatIsDownMove) {
    EXPECT_EQ((positions{0, 2, 2, 2, 2, 0, 0, 2, 2, 0, 2, 2}),
              chosen_for_twelve({true, false, true}));
    EXPECT_EQ(positions(12, 2), chosen_for_twelve({false, false, true}));
}

TEST(CollectorGroup, WithoutCollectorsEachFlowStaysWithItsOwn) {
    EXPECT_EQ(chosen_for_twelve({true, true, true}), chosen_for_twelve({false, false, false}));
}

TEST(CollectorGroup, FallsBackToTheFirstThatIsUp) {
    std::array<bool, 3> up = {true, true, true};
    const auto first = [&up] { return choose_first(3, [&up](size_t n) { return up[n]; }); };
    EXPECT_EQ(0u, first());
    up = {false, true, true};
    EXPECT_EQ(1u, first());
    up = {false, false, true};
    EXPECT_EQ(2u, first());
    up = {true, false, true};
    EXPECT_EQ(0u, first());
    up = {false, false, false};
    EXPECT_EQ(0u, first());
}

// ---- Exporters that note what they get ----

struct noted {
    bool is_up = true;
    unsigned records = 0;
    unsigned flushes = 0;
    uint32_t answer = 0;
};

constexpr collector_kind kind = {
    "noted",
    nullptr,
    [](void* one, flow_record*) {
        static_cast<noted*>(one)->records += 1;
        return static_cast<noted*>(one)->answer;
    },
    [](void* one) {
        static_cast<noted*>(one)->flushes += 1;
        return static_cast<noted*>(one)->answer;
    },
    [](void*) { return int32_t{7}; },
    [](const void* one) { return static_cast<const noted*>(one)->is_up; },
};

class Group : public testing::Test {
  protected:
    std::array<unsigned, 3> records_after(sharing how, unsigned flows) {
        collector_group group(kind, how);
        for (noted& one : ones)
            group.add(&one);
        flow_record record = {};
        record.l3protocol = 4;
        record.l4protocol = 17;
        record.ipv4 = {0xC0000201, 0xC6336407, 0};
        record.dstport = 53;
        for (unsigned n = 0; n < flows; ++n) {
            record.srcport = static_cast<uint16_t>(n);
            last_answer = group.export_record(&record);
        }
        last_flush = group.flush();
        return {ones[0].records, ones[1].records, ones[2].records};
    }
    using numbers = std::array<unsigned, 3>;

    std::array<noted, 3> ones;
    uint32_t last_answer = 0;
    uint32_t last_flush = 0;
};

TEST_F(Group, InParallelEachGetsAll) {
    ones[1].is_up = false;
    ones[2].answer = 0xFFFFFFFF;
    EXPECT_EQ((numbers{5, 5, 5}), records_after(sharing::parallel, 5));
    EXPECT_EQ(0xFFFFFFFFu, last_answer);
}

TEST_F(Group, BalancesTheLoad) {
    EXPECT_EQ((numbers{993, 968, 1039}), records_after(sharing::load_balancing, 3000));
}

TEST_F(Group, FallsBack) {
    ones[0].is_up = false;
    EXPECT_EQ((numbers{0, 5, 0}), records_after(sharing::fallback, 5));
}

TEST_F(Group, OfOneIsThatOne) {
    ones[0].is_up = false;
    EXPECT_EQ((numbers{5, 0, 0}), records_after(sharing::alone, 5));
    EXPECT_EQ(0u, last_answer);
}

TEST_F(Group, AllAreFlushed) {
    ones[1].answer = 0xFFFFFFFF;
    (void)records_after(sharing::fallback, 1);
    for (const noted& one : ones)
        EXPECT_EQ(1u, one.flushes);
    EXPECT_EQ(0xFFFFFFFFu, last_flush);
}

TEST_F(Group, OnlyOneAloneGoesByTheClockOfTheRecordLoop) {
    collector_group alone(kind, sharing::alone);
    alone.add(&ones[0]);
    EXPECT_EQ(7, alone.tend());
    collector_group several(kind, sharing::fallback);
    several.add(&ones[0]);
    several.add(&ones[1]);
    EXPECT_EQ(-1, several.tend());
}

// ---- Parameters ----

TEST(CollectorList, IsEmptyForOneCollector) {
    EXPECT_TRUE(read_collectors(nullptr).params.empty());
    const collector_list list = read_collectors("host=a,port=1,template-file=#");
    EXPECT_TRUE(list.params.empty());
    EXPECT_EQ(sharing::alone, list.how);
}

TEST(CollectorList, GivesEachCollectorTheOtherParameters) {
    const collector_list list =
        read_collectors("port=4739,group=load-balancing,host=a#b#::1,reconnect=background,queue=1");
    EXPECT_EQ(sharing::load_balancing, list.how);
    EXPECT_EQ((std::vector<std::string>{"host=a,port=4739,reconnect=background,queue=1",
                                        "host=b,port=4739,reconnect=background,queue=1",
                                        "host=::1,port=4739,reconnect=background,queue=1"}),
              list.params);
    EXPECT_EQ(sharing::parallel,
              read_collectors("host=a#b,reconnect=background,group=parallel").how);
    EXPECT_EQ(sharing::fallback,
              read_collectors("host=a#b,reconnect=background,group=fallback").how);
}

using CollectorListDeathTest = testing::Test;

void expect_refusal(const char* params, const char* said) {
    EXPECT_EXIT((void)read_collectors(params), testing::ExitedWithCode(255), said) << params;
}

TEST(CollectorListDeathTest, EndsTheStartWhenItMakesNoSense) {
    expect_refusal("host=a#b,reconnect=background",
                   "^host names several collectors: say how they share the flows, with "
                   "group=parallel, load-balancing or fallback\n$");
    for (const char* params :
         {"host=a,group=parallel,reconnect=background",
          "host=a#,group=parallel,reconnect=background", "group=parallel,reconnect=background"})
        expect_refusal(params, "^group goes with several collectors, as in host=a#b\n$");
    expect_refusal("host=a#b,group=parallel", "^group goes with reconnect=background\n$");
    expect_refusal("host=a#b,group=loadBalancing,reconnect=background",
                   "^Unknown group: loadBalancing \\(there are parallel, load-balancing and "
                   "fallback\\)\n$");
    expect_refusal("host=a#b#c#d#e#f#g#h#i#j#k#l#m#n#o#p#q,group=parallel,reconnect=background",
                   "^A group has 16 collectors at most\n$");
}

}  // namespace
}  // namespace kestrel
