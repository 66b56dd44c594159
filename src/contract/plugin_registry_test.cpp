// Tests of the plugin registry: what it refuses, how names are found, and how record space grows.
#include "contract/plugin_registry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

namespace kestrel {
namespace {

using testing::Eq;
using testing::ExitedWithCode;

const plugin_description* desc_alpha() {
    static constexpr plugin_description description{"alpha", "first line\nsecond line", 0, 0};
    return &description;
}
const plugin_description* desc_alphabet() {
    static constexpr plugin_description description{"alphabet", "letters", 0, 0};
    return &description;
}
const plugin_description* desc_beta() {
    static constexpr plugin_description description{"beta", "second", 0, 0};
    return &description;
}

const uint8_t* no_packet(void*, packet_header*) {
    return nullptr;
}
flow_key no_flow(void*, flow_record*) {
    return 0;
}
const uint8_t* no_flow_packet(void*, uint32_t*, uint32_t*) {
    return nullptr;
}

// A registry lives as long as the program.
std::list<plugin_registry>& kept_registries() {
    static auto& kept = *new std::list<plugin_registry>;
    return kept;
}

struct Registry : testing::Test {
    plugin_registry& registry = kept_registries().emplace_back();

    void add_filter(plugin_desc_function* desc) {
        add_filter_plugin(&registry, desc, nullptr, nullptr);
    }
    void add_packet_input(plugin_desc_function* desc) {
        add_input_plugin(&registry, desc, nullptr, nullptr, nullptr, nullptr, nullptr, no_packet,
                         nullptr);
    }
    // An input with the given ways to deliver.
    void add_input(packet_function* packet, input_flow_function* flow,
                   input_final_flow_function* final_flow, input_flow_packet_function* flow_packet) {
        add_input_plugin(&registry, desc_alpha, nullptr, nullptr, nullptr, flow, final_flow, packet,
                         flow_packet);
    }
};

TEST_F(Registry, KeepsTheOrderOfRegistration) {
    add_filter(desc_beta);
    add_filter(desc_alpha);
    ASSERT_EQ(registry.filter_count, 2);
    EXPECT_EQ(registry.filters[0].desc, desc_beta);
    EXPECT_EQ(registry.filters[1].desc, desc_alpha);
}

TEST_F(Registry, KeepsTheOperationsOfAProcessPlugin) {
    add_process_plugin(
        &registry, desc_alpha, [](char*, uint16_t) -> void* { return nullptr; },
        [](void*, getter**, process_plugin*) {}, [](void*, flow_record*) {},
        [](void*, flow_record*, flow_record*) {}, [](void*, flow_record*, int32_t) {});
    ASSERT_EQ(registry.process_count, 1);
    const process_plugin& plugin = registry.processes[0];
    EXPECT_NE(plugin.init, nullptr);
    EXPECT_NE(plugin.getter_init, nullptr);
    EXPECT_NE(plugin.create, nullptr);
    EXPECT_NE(plugin.update, nullptr);
    EXPECT_NE(plugin.release, nullptr);
    EXPECT_EQ(plugin.params, nullptr);
}

TEST_F(Registry, RefusesASecondPluginOfTheSameNameAndKind) {
    add_filter(desc_alpha);
    EXPECT_EXIT(add_filter(desc_alpha), ExitedWithCode(255), Eq("Duplicate plugin name: alpha\n"));
}

TEST_F(Registry, KindsDoNotShareNames) {
    add_filter(desc_alpha);
    add_packet_input(desc_alpha);
    add_export_plugin(&registry, desc_alpha, nullptr, nullptr, nullptr);
    EXPECT_EQ(registry.filter_count, 1);
    EXPECT_EQ(registry.input_count, 1);
    EXPECT_EQ(registry.export_count, 1);
}

TEST_F(Registry, ANameThatBeginsLikeAnotherIsNoDuplicate) {
    add_filter(desc_alphabet);
    add_filter(desc_alpha);
    EXPECT_EQ(registry.filter_count, 2);
}

TEST_F(Registry, AnInputWithoutSamplingSamplesNothing) {
    add_packet_input(desc_alpha);
    ASSERT_NE(registry.inputs[0].sampling, nullptr);
    EXPECT_EQ(registry.inputs[0].sampling(nullptr), 0u);
}

TEST_F(Registry, AnInputNeedsAWayToDeliver) {
    EXPECT_EXIT(add_input(nullptr, nullptr, nullptr, nullptr), ExitedWithCode(255),
                Eq("Invalid input plugin\n"));
    EXPECT_EXIT(add_input(nullptr, nullptr, nullptr, no_flow_packet), ExitedWithCode(255),
                Eq("Invalid input plugin\n"));
}

TEST_F(Registry, AnInputHasOneWayToDeliver) {
    const char* const refusal = "Invalid input plugin (multiple input methods present)\n";
    EXPECT_EXIT(add_input(no_packet, no_flow, nullptr, nullptr), ExitedWithCode(255), Eq(refusal));
    EXPECT_EXIT(add_input(no_packet, nullptr, no_flow, nullptr), ExitedWithCode(255), Eq(refusal));
    EXPECT_EXIT(add_input(nullptr, no_flow, no_flow, nullptr), ExitedWithCode(255), Eq(refusal));
    EXPECT_EXIT(add_input(no_packet, no_flow, no_flow, no_flow_packet), ExitedWithCode(255),
                Eq(refusal));
}

TEST_F(Registry, OnlyFlowInputsShowTheirPackets) {
    const char* const refusal =
        "Invalid input plugin (get_packet and get_final_flow can't coexist with "
        "get_flow_packet\n";
    EXPECT_EXIT(add_input(no_packet, nullptr, nullptr, no_flow_packet), ExitedWithCode(255),
                Eq(refusal));
    EXPECT_EXIT(add_input(nullptr, nullptr, no_flow, no_flow_packet), ExitedWithCode(255),
                Eq(refusal));
    add_input(nullptr, no_flow, nullptr, no_flow_packet);
    EXPECT_EQ(registry.inputs[0].get_flow_packet, no_flow_packet);
}

TEST_F(Registry, APrefixFindsTheFirstNameThatBeginsWithIt) {
    add_filter(desc_beta);
    add_filter(desc_alphabet);
    add_filter(desc_alpha);
    EXPECT_EQ(find_by_prefix<filter_plugin>(registry, "alpha")->desc, desc_alphabet);
    EXPECT_EQ(find_by_prefix<filter_plugin>(registry, "b")->desc, desc_beta);
    EXPECT_EQ(find_by_prefix<filter_plugin>(registry, "alphabets"), nullptr);
    EXPECT_EQ(find_by_prefix<filter_plugin>(registry, nullptr), nullptr);
}

TEST_F(Registry, AnExactNameFindsNoLongerOne) {
    add_filter(desc_alphabet);
    add_filter(desc_alpha);
    EXPECT_EQ(find_by_name<filter_plugin>(registry, "alpha")->desc, desc_alpha);
    EXPECT_EQ(find_by_name<filter_plugin>(registry, "alph"), nullptr);
    EXPECT_EQ(find_by_name<filter_plugin>(registry, ""), nullptr);
}

TEST_F(Registry, RecordSpaceIsHandedOutAtItsEnd) {
    EXPECT_EQ(reserve_record_space(registry, 10), 88);
    EXPECT_EQ(reserve_record_space(registry, 0), 98);
    EXPECT_EQ(reserve_record_space(registry, 44), 98);
    EXPECT_EQ(registry.extension_length, 54);
}

TEST_F(Registry, RecordSpaceEndsWhereOffsetsEnd) {
    EXPECT_EQ(reserve_record_space(registry, 65447), 88);  // 88 + 65447 = 65535
    EXPECT_EXIT(reserve_record_space(registry, 1), ExitedWithCode(255),
                Eq("Flow record too large: 65536 bytes\n"));
}

TEST_F(Registry, TheListHasNoProcessSectionWithoutProcessPlugins) {
    add_packet_input(desc_alpha);
    add_filter(desc_beta);
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            print_plugins(&registry);
        },
        ExitedWithCode(0),
        Eq("\nINPUT Plugin(s)\nname: alpha\nfirst line\nsecond line\n\n"
           "\nFILTER Plugin(s)\nname: beta\nsecond\n\n"
           "\nEXPORT Plugin(s)\n"));
}

TEST_F(Registry, TheListShowsProcessPluginsBeforeFilters) {
    add_process_plugin(&registry, desc_alphabet, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            print_plugins(&registry);
        },
        ExitedWithCode(0),
        Eq("\nINPUT Plugin(s)\n\nPROCESS Plugin(s)\nname: alphabet\nletters\n\n"
           "\nFILTER Plugin(s)\n\nEXPORT Plugin(s)\n"));
}

}  // namespace
}  // namespace kestrel
