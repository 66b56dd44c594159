// Tests of the option parser: what a command line leaves in the settings. Its messages and exit
// statuses are tested with the whole program.
#include "app/options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include "base/log.h"

namespace kestrel {
namespace {

const plugin_description* desc_first() {
    static const plugin_description description{"first", "", 0, 0};
    return &description;
}
const plugin_description* desc_second() {
    static const plugin_description description{"second", "", 6, 0};
    return &description;
}
const plugin_description* desc_plain() {
    static const plugin_description description{"plain", "", 8, 0};
    return &description;
}
const plugin_description* desc_packets() {
    static const plugin_description description{"packets", "", 3, 1};
    return &description;
}

const plugin_description* desc_whole() {
    static const plugin_description description{"whole", "", 0, PLUGIN_WHOLE_PARAMS};
    return &description;
}

flow_key no_flow(void*, flow_record*) {
    return 0;
}

// Settings live as long as the program, and so do the texts that they point to.
std::list<settings>& kept_settings() {
    static auto& kept = *new std::list<settings>;
    return kept;
}

struct Options : testing::Test {
    settings& given = kept_settings().emplace_back();

    void SetUp() override {
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
        verbose_level = -1;
        plugin_registry* registry = &given.run.registry;
        for (plugin_desc_function* desc : {desc_first, desc_second, desc_whole})
            add_input_plugin(registry, desc, nullptr, nullptr, nullptr, no_flow, nullptr, nullptr,
                             nullptr);
        for (plugin_desc_function* desc : {desc_plain, desc_packets}) {
            add_process_plugin(registry, desc, nullptr, nullptr, nullptr, nullptr, nullptr);
            add_filter_plugin(registry, desc, nullptr, nullptr);
            add_export_plugin(registry, desc, nullptr, nullptr, nullptr);
        }
        add_export_plugin(registry, desc_whole, nullptr, nullptr, nullptr);
        add_filter_plugin(registry, desc_whole, nullptr, nullptr);
        add_process_plugin(registry, desc_whole, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    void TearDown() override {
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
        verbose_level = -1;
    }

    // Words are parted by blanks.
    void parse(const std::string& line) {
        words = {"kestrelexp"};
        for (size_t at = 0; at < line.size();) {
            const size_t end = std::min(line.find(' ', at), line.size());
            words.push_back(line.substr(at, end - at));
            at = end + 1;
        }
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        parse_options(static_cast<int>(words.size()), argv.data(), given);
    }

    const std::vector<export_entry>& exports() { return given.run.exports; }

    std::vector<std::string> words;
};

TEST_F(Options, AnEmptyCommandLineLeavesTheDefaults) {
    parse("");
    EXPECT_EQ(given.run.daemonize, 0);
    EXPECT_EQ(given.run.active_timeout, 180);
    EXPECT_EQ(given.run.inactive_timeout, 5);
    EXPECT_EQ(given.run.queue_size, 19);
    EXPECT_EQ(given.run.input_index, -1);
    EXPECT_EQ(given.flow_mask, 0x0077u);
    EXPECT_FALSE(given.cpu_mask.has_value());
    EXPECT_EQ(given.user, nullptr);
    EXPECT_EQ(given.huge_directory, nullptr);
    ASSERT_EQ(exports().size(), 1u);
    EXPECT_EQ(exports()[0].name, nullptr);
    EXPECT_EQ(exports()[0].sampling_rate, 0);
    EXPECT_EQ(exports()[0].snmp_input_if, 0xFFFF);
    EXPECT_EQ(exports()[0].snmp_output_if, 0xFFFF);
}

TEST_F(Options, ExportOptionsBelongToTheNextExport) {
    parse("-S 10 -n 1 -N 2 -E a:x=1 -F plain:f=1 -F packets -E b -N 3 -E c:");
    ASSERT_EQ(exports().size(), 3u);
    EXPECT_STREQ(exports()[0].name, "a");
    EXPECT_STREQ(exports()[0].params, "x=1");
    EXPECT_EQ(exports()[0].sampling_rate, 10);
    EXPECT_EQ(exports()[0].snmp_output_if, 1);
    EXPECT_EQ(exports()[0].snmp_input_if, 2);
    EXPECT_TRUE(exports()[0].filters.empty());

    EXPECT_STREQ(exports()[1].name, "b");
    EXPECT_EQ(exports()[1].params, nullptr);
    EXPECT_EQ(exports()[1].sampling_rate, 0);
    EXPECT_EQ(exports()[1].snmp_output_if, 0xFFFF);
    ASSERT_EQ(exports()[1].filters.size(), 2u);
    EXPECT_EQ(exports()[1].filters[0].desc, desc_plain);
    EXPECT_STREQ(exports()[1].filters[0].params, "f=1");
    EXPECT_EQ(exports()[1].filters[1].desc, desc_packets);
    EXPECT_EQ(exports()[1].filters[1].params, nullptr);

    EXPECT_STREQ(exports()[2].name, "c");
    EXPECT_EQ(exports()[2].params, nullptr);
    EXPECT_EQ(exports()[2].snmp_input_if, 3);
}

TEST_F(Options, ParamsEndAtTheSecondColon) {
    parse("-E a:host=::1,port=2");
    EXPECT_STREQ(exports()[0].params, "host=");
}

TEST_F(Options, ColonsInARowCountAsOne) {
    parse("-E :a::b:c");
    EXPECT_STREQ(exports()[0].name, "a");
    EXPECT_STREQ(exports()[0].params, "b");
}

TEST_F(Options, AFilterMayAskForItsParamsWhole) {
    parse("-G whole:a:b::c -F whole:2001:db8::/32: -F plain:a:b -E e");
    EXPECT_STREQ(given.run.global_filters[0].params, "a:b::c");
    ASSERT_EQ(exports()[0].filters.size(), 2u);
    EXPECT_STREQ(exports()[0].filters[0].params, "2001:db8::/32:");
    EXPECT_STREQ(exports()[0].filters[1].params, "a");
}

TEST_F(Options, AnInputMayWantItsParamsWhole) {
    parse("-I whole:file=a:b.pcap,x=1::");
    EXPECT_EQ(given.run.input_index, 2);
    EXPECT_STREQ(given.run.registry.inputs[2].params, "file=a:b.pcap,x=1::");
}

TEST_F(Options, AnInputWithoutTheFlagHasItsParamsCut) {
    parse("-I second:a:b");
    EXPECT_STREQ(given.run.registry.inputs[1].params, "a");
}

TEST_F(Options, AnInputThatWantsWholeParamsMayHaveNone) {
    parse("-I whole:");
    EXPECT_EQ(given.run.registry.inputs[2].params, nullptr);
}

TEST_F(Options, AnExportMayWantItsParamsWhole) {
    parse("-E whole:a:b::c -E packets:a:b -E plain:a:b -E whole -E who:a:b -E whole:a");
    ASSERT_EQ(exports().size(), 6u);
    EXPECT_STREQ(exports()[0].name, "whole");
    EXPECT_STREQ(exports()[0].params, "a:b::c");
    EXPECT_STREQ(exports()[1].params, "a");
    EXPECT_STREQ(exports()[2].params, "a");
    EXPECT_EQ(exports()[3].params, nullptr);
    EXPECT_STREQ(exports()[4].params, "a");  // exports are not found by the beginning of a name
    EXPECT_STREQ(exports()[5].params, "a");
}

TEST_F(Options, WholeParamsBeginBehindTheFirstColonOfTheName) {
    parse("-G wh::a -G ::whole:a:b -G whole:a");
    EXPECT_STREQ(given.run.global_filters[0].params, ":a");
    EXPECT_STREQ(given.run.global_filters[1].params, "a:b");
    EXPECT_STREQ(given.run.global_filters[2].params, "a");
}

TEST_F(Options, WholeParamsOfNothingAreNone) {
    parse("-G whole -G whole:");
    EXPECT_EQ(given.run.global_filters[0].params, nullptr);
    EXPECT_EQ(given.run.global_filters[1].params, nullptr);
}

TEST_F(Options, OnlyOneFlagOfAFilterAsksForWholeParams) {
    parse("-G packets:a:b");  // its flags are 1
    EXPECT_STREQ(given.run.global_filters[0].params, "a");
}

TEST_F(Options, AnyFlagOfAProcessPluginMeansPackets) {
    parse("-P whole:a:b");
    EXPECT_STREQ(given.run.processes[0].params, "a");
    EXPECT_NE(given.run.registry.process_flag, 0);
}

TEST_F(Options, ADirectoryBehindTheLastExportOpensNone) {
    parse("-E a -H /mnt/huge");
    EXPECT_STREQ(given.huge_directory, "/mnt/huge");
    EXPECT_EQ(exports().size(), 1u);
}

TEST_F(Options, AnEndOfOptionsBehindTheLastExportOpensNone) {
    parse("-E a --");
    EXPECT_EQ(exports().size(), 1u);
}

TEST_F(Options, ExportOptionsBehindTheLastExportLeaveAnUnnamedOne) {
    parse("-E a -n 1");
    ASSERT_EQ(exports().size(), 2u);
    EXPECT_EQ(exports()[1].name, nullptr);
    EXPECT_EQ(exports()[1].snmp_output_if, 1);
}

TEST_F(Options, InterfaceNumbersAreCutToSixteenBits) {
    parse("-n 65537 -N 65535 -E a");
    EXPECT_EQ(exports()[0].snmp_output_if, 1);
    EXPECT_EQ(exports()[0].snmp_input_if, 0xFFFF);
}

TEST_F(Options, SamplingOfZeroMeansNone) {
    parse("-S 0 -E a");
    EXPECT_EQ(exports()[0].sampling_rate, 0);
}

TEST_F(Options, BlocksStandInTheOrderGiven) {
    parse("-e mpls -e vlan");
    EXPECT_EQ(kestrel_mpls_offset, 88u);
    EXPECT_EQ(kestrel_vlan_offset, 132u);
    EXPECT_EQ(kestrel_mac_offset, 0u);
    EXPECT_EQ(given.run.registry.extension_length, 54);
}

TEST_F(Options, TheMacBlockFollowsTheVlanBlock) {
    parse("-e vlan -e mac");
    EXPECT_EQ(kestrel_vlan_offset, 88u);
    EXPECT_EQ(kestrel_mac_offset, 98u);
    EXPECT_EQ(given.run.registry.extension_length, 22);
}

TEST_F(Options, BlocksFollowTheSpaceOfEarlierPlugins) {
    parse("-I second -P plain -e vlan -P packets -e mac");
    EXPECT_EQ(given.run.registry.inputs[1].data_offset, 88);
    EXPECT_EQ(given.run.processes[0].data_offset, 94);
    EXPECT_EQ(kestrel_vlan_offset, 102u);
    EXPECT_EQ(given.run.processes[1].data_offset, 112);
    EXPECT_EQ(kestrel_mac_offset, 115u);
    EXPECT_EQ(given.run.registry.extension_length, 39);
}

TEST_F(Options, ABlockGivenTwiceStandsAtItsLastPlace) {
    parse("-e mac -e mac");
    EXPECT_EQ(kestrel_mac_offset, 100u);
    EXPECT_EQ(given.run.registry.extension_length, 24);
}

TEST_F(Options, AnUnknownBlockIsIgnored) {
    parse("-e foo -e vla -e vlans -e VLAN");
    EXPECT_EQ(kestrel_vlan_offset, 0u);
    EXPECT_EQ(given.run.registry.extension_length, 0);
}

TEST_F(Options, BlocksThatPassTheRecordsLimitAreRefused) {
    std::string line;
    for (int i = 0; i < 1488; ++i)  // 88 + 1488 * 44 = 65560
        line += "-e mpls ";
    EXPECT_EXIT(parse(line), testing::ExitedWithCode(255),
                testing::Eq("Flow record too large: 65560 bytes\n"));
}

TEST_F(Options, APrefixChoosesTheFirstInput) {
    parse("-I fi:device=lo");
    EXPECT_EQ(given.run.input_index, 0);
    EXPECT_STREQ(given.run.registry.inputs[0].params, "device=lo");
}

TEST_F(Options, TheFirstInputMayBeReplaced) {
    parse("-I first:a=1 -I second:b=2");
    EXPECT_EQ(given.run.input_index, 1);
    EXPECT_STREQ(given.run.registry.inputs[1].params, "b=2");
}

TEST_F(Options, ProcessPluginsThatNeedPacketsSetTheFlag) {
    parse("-P plain");
    EXPECT_EQ(given.run.registry.process_flag, 0);
    parse("-P packets:x");
    EXPECT_NE(given.run.registry.process_flag, 0);
    ASSERT_EQ(given.run.processes.size(), 2u);
    EXPECT_STREQ(given.run.processes[1].params, "x");
}

TEST_F(Options, APluginMayBeUsedSeveralTimes) {
    parse("-G plain:a -G plain:b");
    ASSERT_EQ(given.run.global_filters.size(), 2u);
    EXPECT_STREQ(given.run.global_filters[0].params, "a");
    EXPECT_STREQ(given.run.global_filters[1].params, "b");
}

TEST_F(Options, TheFlowMaskIsDecimalHexadecimalOrOctal) {
    parse("-C 119");
    EXPECT_EQ(given.flow_mask, 119u);
    parse("-C 0x1ff");
    EXPECT_EQ(given.flow_mask, 0x1FFu);
    parse("-C 017");
    EXPECT_EQ(given.flow_mask, 15u);
}

TEST_F(Options, TheCpuMaskReachesBitThirtyOne) {
    parse("-m 2147483649");
    EXPECT_EQ(given.cpu_mask, 0x80000001u);
}

TEST_F(Options, ACpuMaskOfAllBitsIsNone) {
    parse("-m 1 -m 4294967295");
    EXPECT_FALSE(given.cpu_mask.has_value());
    parse("-m 4294967294");
    EXPECT_EQ(given.cpu_mask, 0xFFFFFFFEu);
}

TEST_F(Options, AMissingTimeoutKeepsItsValue) {
    parse("-t 60");
    EXPECT_EQ(given.run.active_timeout, 60);
    EXPECT_EQ(given.run.inactive_timeout, 5);
    parse("-t 90:20");
    parse("-t 100");
    EXPECT_EQ(given.run.active_timeout, 100);
    EXPECT_EQ(given.run.inactive_timeout, 20);
    parse("-t :");
    EXPECT_EQ(given.run.active_timeout, 100);
}

TEST_F(Options, TheLimitsOfTimeoutsAreAccepted) {
    parse("-t 4:1");
    EXPECT_EQ(given.run.active_timeout, 4);
    EXPECT_EQ(given.run.inactive_timeout, 1);
    parse("-t 6000:600");
    EXPECT_EQ(given.run.active_timeout, 6000);
    EXPECT_EQ(given.run.inactive_timeout, 600);
}

TEST_F(Options, TheLimitsOfTheQueueSizeAreAccepted) {
    parse("-q 5");
    EXPECT_EQ(given.run.queue_size, 5);
    parse("-q 30");
    EXPECT_EQ(given.run.queue_size, 30);
}

TEST_F(Options, NumbersBeyondThirtyTwoBitsAreHeldAtTheLimit) {
    EXPECT_EXIT(parse("-q 4294967306"), testing::ExitedWithCode(255),
                testing::Eq("2147483647 is not valid queue size\n"));
}

TEST_F(Options, TheLevelOfDetailHoldsAtOnce) {
    parse("-v 3");
    EXPECT_EQ(verbose_level, 3);
}

TEST_F(Options, TheTableNamesEachOptionOnce) {
    std::string letters;
    for (const option_row& row : option_table())
        letters += row.letter;
    EXPECT_EQ(letters, "demuvHXGPCIqtEnNFShlV");
}

}  // namespace
}  // namespace kestrel
