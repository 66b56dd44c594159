// Tests of the loop that runs on the time of its packets. It never ends, so each test runs in a
// process of its own. Random packets are compared with a second model in tests/model.
#include "engine/replay.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "base/thread.h"
#include "base/wire.h"
#include "flow/ring.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/service.h"
#include "tests/support/child.h"
#include "tests/support/frame_builder.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

constexpr uint64_t ms = 1'000'000;
constexpr uint64_t second = 1'000 * ms;
constexpr uint64_t start = 631'152'000 * second;

void say(const std::string& text) {
    (void)!write(STDERR_FILENO, text.data(), text.size());
}

// ---- The input ----

// What one call of the input gives.
struct step {
    enum { packet, other_frame, nothing } kind;
    uint64_t time;  // ms after the start; of nothing: how far the input has come
    unsigned port = 1;
};

struct script {
    std::vector<step> steps;
    size_t next = 0;
    uint64_t reached = start;
    bool goes_on = false;  // with nothing, for ever
    frame_bytes frame;
    int last_state = INPUT_CLOCK_ENDED;
};
script played;
std::atomic<size_t> calls = 0;

const uint8_t* get_packet(void*, packet_header* header) {
    ++calls;
    if (played.next == played.steps.size()) {
        usleep(1'000);
        return nullptr;
    }
    const step& now = played.steps[played.next++];
    played.reached = start + now.time * ms;
    if (now.kind == step::nothing)
        return nullptr;
    frame_builder builder;
    if (now.kind == step::packet)
        builder.macs().u16(0x0800).ipv4(17, 100).udp(now.port, 53);
    else
        builder.macs().u16(0x0806).zeros(46);
    played.frame = builder.done();
    const auto length = static_cast<uint32_t>(played.frame.size());
    *header = {start + now.time * ms, length, length, 3, 4};
    return played.frame.data();
}

int get_clock(void*, uint64_t* now) {
    *now = played.reached;
    return played.next == played.steps.size() && !played.goes_on ? played.last_state
                                                                 : INPUT_CLOCK_RUNS;
}

// ---- What comes out ----

void start_replay(std::vector<step> steps, temporal_storage** finals, process_plugin* plugin,
                  bool goes_on, int last_state = INPUT_CLOCK_ENDED) {
    verbose_level = -2;
    played = {.steps = std::move(steps), .goes_on = goes_on, .frame = {}, .last_state = last_state};
    *finals = temporal_storage_init(8, 88 + sizeof(replay_stamp), nullptr, "final-records");
    flow_queue* queue =
        replay_queue_init(10, 180, 10, *finals, nullptr, 0, plugin != nullptr, plugin);
    static input_plugin input{};
    input.init = [](char*, int, uint16_t) -> void* { return &played; };
    input.sampling = [](void*) -> uint32_t { return 5; };
    input.get_packet = get_packet;
    flow_switch* sw = replay_switch_init(queue, FLOW_MASK_DEFAULT, 0, &input);
    sw->clock = get_clock;
    start_thread(replay_loop, sw);
}

std::string in_ms(uint64_t time) {
    return std::to_string((time - start) / ms);
}

// A line for each slot up to the end: port, first and last packet, when it left (ms).
void say_slots(temporal_storage* finals) {
    for (;;) {
        const auto* slot = static_cast<const uint8_t*>(temporal_storage_get(finals, 50));
        if (!slot)
            continue;
        const auto stamp = load_native<replay_stamp>(slot + 88);
        if (stamp.ended) {
            say("end at " + in_ms(stamp.now_ns) + ", frames " +
                std::to_string(stamp.ended->frames) + ", no flow " +
                std::to_string(stamp.ended->no_flow) +
                (stamp.ended->has_failed ? ", failed\n" : "\n"));
            return;
        }
        const auto& flow = *reinterpret_cast<const flow_record*>(slot);
        say("port " + std::to_string(flow.srcport) + ": " + std::to_string(flow.packets) +
            " from " + in_ms(flow.start) + " to " + in_ms(flow.end) + ", left at " +
            in_ms(stamp.now_ns) + "\n");
    }
}

std::string slots_of(const std::vector<step>& steps, process_plugin* plugin = nullptr,
                     int last_state = INPUT_CLOCK_ENDED) {
    return run_in_child([&] {
        temporal_storage* finals;
        start_replay(steps, &finals, plugin, false, last_state);
        say_slots(finals);
    });
}

// ---- Tests ----

TEST(Replay, AnInputWithoutPacketsEndsAtItsTime) {
    EXPECT_EQ("end at 40, frames 0, no flow 0\n", slots_of({{step::nothing, 40}}));
}

TEST(Replay, WhatIsLeftIsFlushedAtTheEnd) {
    EXPECT_EQ(
        "port 1: 2 from 0 to 700, left at 700\n"
        "end at 705, frames 3, no flow 1\n",
        slots_of({{step::packet, 0}, {step::packet, 700}, {step::other_frame, 705}}));
}

TEST(Replay, AnInputThatBreaksOffIsFlushedAndItsFaultHandedOn) {
    EXPECT_EQ(
        "port 1: 1 from 0 to 0, left at 0\n"
        "end at 0, frames 1, no flow 0, failed\n",
        slots_of({{step::packet, 0}}, nullptr, INPUT_CLOCK_FAILED));
}

TEST(Replay, AnyOtherLastWordOfAnInputIsAnEnd) {
    for (int state : {-1, 3, 256})
        EXPECT_EQ("end at 0, frames 0, no flow 0\n", slots_of({}, nullptr, state));
}

TEST(Replay, AFlowLeavesAtTheTickThatFoundItIdle) {
    // Passes of 2.51 s; the sixth is the second that looks at everything.
    EXPECT_EQ(
        "port 1: 1 from 0 to 0, left at 15060\n"
        "port 1: 1 from 20000 to 20000, left at 20000\n"
        "end at 20000, frames 2, no flow 0\n",
        slots_of({{step::packet, 0}, {step::packet, 20'000}}));
}

TEST(Replay, SilenceThatTheInputTellsOfAgesFlowsToo) {
    EXPECT_EQ(
        "port 1: 1 from 0 to 0, left at 15060\n"
        "end at 16000, frames 1, no flow 0\n",
        slots_of({{step::packet, 0}, {step::nothing, 15'000}, {step::nothing, 16'000}}));
}

TEST(Replay, FramesThatAreNoFlowTellTheTime) {
    EXPECT_EQ(
        "port 1: 1 from 0 to 0, left at 15060\n"
        "port 1: 1 from 1000 to 1000, left at 20000\n"
        "end at 20000, frames 3, no flow 1\n",
        slots_of({{step::packet, 0}, {step::other_frame, 20'000}, {step::packet, 1'000}}));
}

TEST(Replay, APacketOutOfOrderEndsItsFlowNow) {
    EXPECT_EQ(
        "port 1: 1 from 900 to 900, left at 900\n"
        "port 1: 1 from 400 to 400, left at 900\n"
        "end at 900, frames 2, no flow 0\n",
        slots_of({{step::packet, 900}, {step::packet, 400}}));
}

TEST(Replay, AnActiveTimeoutLeavesAtTheTickBeforeThePacketThatMeetsIt) {
    std::vector<step> steps;
    for (unsigned n = 0; n <= 36; ++n)
        steps.push_back({step::packet, n * 5'000 + 3});  // between two ticks
    EXPECT_EQ(
        "port 1: 36 from 3 to 175003, left at 180000\n"
        "port 1: 1 from 180003 to 180003, left at 180003\n"
        "end at 180003, frames 37, no flow 0\n",
        slots_of(steps));
}

TEST(Replay, CenturiesOfSilencePassAtOnce) {
    EXPECT_EQ(
        "port 1: 1 from 0 to 0, left at 15060\n"
        "port 2: 1 from 6300000000000 to 6300000000000, left at 6300000000000\n"
        "end at 6300000000000, frames 2, no flow 0\n",
        slots_of({{step::packet, 0, 1}, {step::packet, 6'300'000'000'000, 2}}));
}

TEST(Replay, AProcessPluginSeesTheFrameBehindItsRecord) {
    process_plugin plugin{};
    plugin.create = [](void*, flow_record* packet) {
        uint32_t captured = 0, headers = 0;
        const uint8_t* frame = get_packet_data(&captured, &headers);
        // The second byte of the source port stands after 14 and 20 bytes of headers.
        say("record of port " + std::to_string(packet->srcport) + ", frame of port " +
            std::to_string(frame[35]) + ", " + std::to_string(captured) + " bytes, headers " +
            std::to_string(headers) + "\n");
    };
    plugin.update = [](void*, flow_record*, flow_record*) {
        uint32_t captured = 0, headers = 0;
        say("again port " + std::to_string(get_packet_data(&captured, &headers)[35]) + "\n");
    };
    plugin.release = [](void*, flow_record*, int32_t reason) {
        say("ends for reason " + std::to_string(reason) + "\n");
    };
    const std::string said =
        slots_of({{step::packet, 0, 7}, {step::packet, 1, 9}, {step::packet, 2, 7}}, &plugin);
    EXPECT_EQ(
        "record of port 7, frame of port 7, 42 bytes, headers 42\n"
        "record of port 9, frame of port 9, 42 bytes, headers 42\n"
        "again port 7\n"
        "ends for reason 3\n"
        "ends for reason 3\n",
        said.substr(0, said.find("port 7: ") < said.find("port 9: ") ? said.find("port 7: ")
                                                                     : said.find("port 9: ")));
}

TEST(Replay, StopsBehindThePacketsInHand) {
    EXPECT_EQ(
        "port 1: 1 from 0 to 0, left at 0\n"
        "end at 5, frames 1, no flow 0\n",
        run_in_child([] {
            temporal_storage* finals;
            start_replay({{step::packet, 0}, {step::nothing, 5}}, &finals, nullptr, true);
            while (calls < 3)
                usleep(1'000);
            replay_stop();
            say_slots(finals);
        }));
}

TEST(Replay, TheClockBeforeTheFirstPacketIsTheInputs) {
    EXPECT_EQ("631152000000000000", run_in_child([] {
                  packet_reader reader{};
                  flow_switch sw{};
                  sw.context = &reader;
                  plugin_operations input{};
                  input.clock = get_clock;
                  replay_start_clock(sw, input);
                  say(std::to_string(timer_get_nsec()));
              }));
}

}  // namespace
