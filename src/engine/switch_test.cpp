// Tests of the switch: which way an input is read, and which inputs cannot serve.
#include "engine/switch.h"

#include <gtest/gtest.h>

#include <string>

#include "kestrelexp/service.h"
#include "tests/support/frame_builder.h"
#include "tests/support/lifelong.h"

namespace {

using namespace kestrel_test;

// ---- A fake input plugin ----

// What the input was called with, and what it is to deliver.
struct fake_input {
    bool init_works = true;
    char* params = nullptr;
    int needs_packets = -1;
    int data_offset = -1;
};
fake_input fake;

void* fake_init(char* params, int needs_packets, uint16_t data_offset) {
    fake.params = params;
    fake.needs_packets = needs_packets;
    fake.data_offset = data_offset;
    return fake.init_works ? &fake : nullptr;
}
uint32_t fake_sampling(void* instance) {
    return instance == &fake ? 100 : 0;
}
const uint8_t* fake_packet(void*, packet_header*) {
    return nullptr;
}
flow_key fake_flow(void*, flow_record*) {
    return 0;
}
const uint8_t* fake_flow_packet(void*, uint32_t*, uint32_t*) {
    return nullptr;
}
flow_key fake_final_flow(void*, flow_record*) {
    return 1;
}

input_plugin make_input() {
    input_plugin input{};
    input.init = fake_init;
    input.sampling = fake_sampling;
    return input;
}

class Switch : public testing::Test {
  protected:
    void SetUp() override {
        fake.init_works = true;
        fake.params = nullptr;
        fake.needs_packets = fake.data_offset = -1;
    }
    void TearDown() override {
        verbose_level = -1;
        fake.init_works = true;
    }
    static std::string messages_of_init(int needs_packets, input_plugin input) {
        testing::internal::CaptureStderr();
        made_ =
            keep(sw_init(nullptr, FLOW_MASK_DEFAULT, needs_packets, keep(new input_plugin(input))));
        return testing::internal::GetCapturedStderr();
    }
    inline static flow_switch* made_ = nullptr;
};

// ---- Choosing the mode ----

TEST_F(Switch, PacketsComeBeforeFlows) {
    input_plugin input = make_input();
    input.get_packet = fake_packet;
    input.get_flow = fake_flow;
    input.get_flow_packet = fake_flow_packet;
    messages_of_init(0, input);
    EXPECT_EQ(&packet_to_flow_reader, made_->reader);
    EXPECT_EQ(nullptr, made_->get_flow_packet);
}

TEST_F(Switch, PacketReaderKnowsTheDriverAndItsSampling) {
    input_plugin input = make_input();
    input.get_packet = fake_packet;
    messages_of_init(0, input);
    const auto* reader = static_cast<const packet_reader*>(made_->context);
    EXPECT_EQ(100u, reader->sampling);
    EXPECT_EQ(&fake, reader->context);
    EXPECT_EQ(&fake_packet, reader->get_packet);
}

TEST_F(Switch, FlowsComeBeforeFinalFlows) {
    input_plugin input = make_input();
    input.get_flow = fake_flow;
    input.get_final_flow = fake_final_flow;
    messages_of_init(0, input);
    EXPECT_EQ(&fake_flow, made_->reader);
    EXPECT_EQ(&fake, made_->context);
}

TEST_F(Switch, FinalFlowsAreReadByThePluginItself) {
    input_plugin input = make_input();
    input.get_final_flow = fake_final_flow;
    messages_of_init(0, input);
    EXPECT_EQ(&fake_final_flow, made_->reader);
    EXPECT_EQ(&fake, made_->context);
    EXPECT_EQ(0, fake.needs_packets);
}

TEST_F(Switch, InitIsGivenParametersNeedAndOffset) {
    char params[] = "ifc=lo";
    input_plugin input = make_input();
    input.get_packet = fake_packet;
    input.params = params;
    input.data_offset = 98;
    messages_of_init(1, input);
    EXPECT_EQ(params, fake.params);
    EXPECT_EQ(1, fake.needs_packets);
    EXPECT_EQ(98, fake.data_offset);
}

TEST_F(Switch, FlowMaskIsSet) {
    input_plugin input = make_input();
    input.get_packet = fake_packet;
    ASSERT_NE(nullptr, keep(sw_init(nullptr, 0, 0, &input)));
    flow_record record{};
    const frame_bytes frame = frame_builder().macs().u16(0x0800).ipv4(17, 28).udp(53, 4444).done();
    EXPECT_EQ(static_cast<flow_key>(0x8B5A'79CA'E1E4'60B4),
              record_process_packet(frame.data(), 42, &record));
    messages_of_init(0, input);  // back to the default mask
}

// ---- Messages ----

TEST_F(Switch, PacketModeIsNamedThree) {
    verbose_level = 3;
    input_plugin input = make_input();
    input.get_packet = fake_packet;
    EXPECT_EQ("VERBOSE: 3:trying to init plugin: 3\nVERBOSE: 0:Plugin OK\n",
              messages_of_init(0, input));
}

TEST_F(Switch, FlowModeIsNamedFour) {
    verbose_level = 3;
    input_plugin input = make_input();
    input.get_flow = fake_flow;
    EXPECT_EQ("VERBOSE: 3:trying to init plugin: 4\nVERBOSE: 0:Plugin OK\n",
              messages_of_init(0, input));
}

TEST_F(Switch, FinalFlowModeHasAMessageOfItsOwn) {
    verbose_level = 3;
    input_plugin input = make_input();
    input.get_final_flow = fake_final_flow;
    EXPECT_EQ("VERBOSE: 3:trying to init final flow plugin\nVERBOSE: 0:Plugin OK\n",
              messages_of_init(0, input));
}

TEST_F(Switch, FailedInitGivesNoSwitch) {
    fake.init_works = false;
    input_plugin input = make_input();
    input.get_packet = fake_packet;
    EXPECT_EQ("Unable to init plugin\n", messages_of_init(0, input));
    EXPECT_EQ(nullptr, made_);
}

// ---- Inputs that cannot serve ----

using SwitchDeathTest = Switch;

void init_and_say_so(input_plugin input, int needs_packets) {
    sw_init(nullptr, FLOW_MASK_DEFAULT, needs_packets, &input);
}

TEST_F(SwitchDeathTest, InputWithoutAnyWayToDeliverEndsTheProgram) {
    EXPECT_EXIT(init_and_say_so(make_input(), 0), testing::ExitedWithCode(255),
                "^Invalid input plugin\n$");
}

TEST_F(SwitchDeathTest, FlowsWithoutPacketsEndTheProgramWhenTheyAreNeeded) {
    input_plugin input = make_input();
    input.get_flow = fake_flow;
    EXPECT_EXIT(init_and_say_so(input, 1), testing::ExitedWithCode(255),
                "^Process plugin needs packets, but selected input mode is not able to provide "
                "it!\n$");
}

TEST_F(SwitchDeathTest, FinalFlowsEndTheProgramWhenPacketsAreNeeded) {
    input_plugin input = make_input();
    input.get_final_flow = fake_final_flow;
    EXPECT_EXIT(init_and_say_so(input, 1), testing::ExitedWithCode(255),
                "^Process plugin needs packets, but selected input mode using final flows!\n$");
}

TEST_F(Switch, FlowsWithPacketsServeWhenTheyAreNeeded) {
    input_plugin input = make_input();
    input.get_flow = fake_flow;
    input.get_flow_packet = fake_flow_packet;
    messages_of_init(1, input);
    ASSERT_NE(nullptr, made_);
    EXPECT_EQ(&fake_flow_packet, made_->get_flow_packet);
    EXPECT_EQ(1, fake.needs_packets);
}

}  // namespace
