// Random packets at random times through the program's replay and through the model: the same flows
// in the same order, each leaving at the same time.
// Not under the thread sanitizer: hours of passes take minutes there, and the threads are those of
// tests/replay, which run there.
#include "tests/model/replay_model.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>

#include "base/thread.h"
#include "engine/replay.h"
#include "flow/ring.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/service.h"
#include "tests/model/frame_generator.h"
#include "tests/support/child.h"

namespace {

using namespace kestrel_model;

constexpr uint64_t ms = 1'000'000;
constexpr uint64_t second = 1'000 * ms;

struct timed_frame {
    uint64_t time;
    std::vector<uint8_t> bytes;
};

// ---- The packets ----

// Mostly a few milliseconds on, at times back, at times a silence of seconds or hours.
uint64_t next_time(frame_generator& random, uint64_t now) {
    if (random.one_in(50))
        return now - random.below(3'000) * ms;
    if (random.one_in(2'000))
        return now + random.below(40'000) * second / 10;
    if (random.one_in(5'000))
        return now + random.below(20'000) * second;
    if (random.one_in(40))
        return now + random.below(700) * ms;
    return now + random.below(4'000'000);
}

std::vector<timed_frame> make_packets(uint64_t seed, uint32_t count, uint32_t kinds) {
    frame_generator random(seed);
    std::vector<std::vector<uint8_t>> pool;
    while (pool.size() < kinds)
        pool.push_back(random.one_in(4) ? random.mutated() : random.well_formed());
    std::vector<timed_frame> packets;
    uint64_t now = 1'000'000 * second;
    while (packets.size() < count) {
        now = next_time(random, now);
        // A few kinds are frequent.
        const uint32_t kind = random.one_in(2) ? random.below(kinds / 8) : random.below(kinds);
        packets.push_back({now, pool[kind]});
    }
    return packets;
}

// ---- The input that delivers them ----

struct script {
    std::vector<timed_frame> packets;
    size_t next = 0;
    uint64_t latest = 0;
    bool is_pausing = false;
};
script played;

const uint8_t* get_packet(void*, packet_header* header) {
    // Nothing at all now and then, which is no end.
    played.is_pausing = !played.is_pausing && played.next % 97 == 5;
    if (played.is_pausing || played.next == played.packets.size())
        return nullptr;
    const timed_frame& packet = played.packets[played.next++];
    played.latest = std::max(played.latest, packet.time);
    const auto length = static_cast<uint32_t>(packet.bytes.size());
    *header = {packet.time, length, length, 0, 0};
    return packet.bytes.data();
}

int get_clock(void*, uint64_t* now) {
    *now = played.next == 0 ? played.packets.front().time : played.latest;
    return played.next == played.packets.size();
}

input_plugin make_input() {
    input_plugin input{};
    input.init = [](char*, int, uint16_t) -> void* { return &played; };
    input.sampling = [](void*) -> uint32_t { return 7; };
    input.get_packet = get_packet;
    return input;
}

// ---- Side by side ----

struct seed_row {
    const char* name;
    uint64_t seed;
    uint32_t packets;
    uint32_t kinds;
    int exponent;
    uint64_t active_s;
    uint64_t inactive_s;
    bool with_plugin;  // packets are then taken one by one
};

void PrintTo(const seed_row& row, std::ostream* out) {
    *out << row.name;
}

void say(const std::string& text) {
    (void)!write(STDERR_FILENO, text.data(), text.size());
}

std::vector<std::string> lines_of_model(const seed_row& row, replay_model& model) {
    const std::vector<timed_frame> packets = make_packets(row.seed, row.packets, row.kinds);
    for (const timed_frame& packet : packets)
        model.take(packet.bytes, packet.time);
    model.end(0);
    std::vector<std::string> lines;
    for (const finished_flow& flow : model.finished)
        lines.push_back(std::to_string(flow.left_at) + ": " + describe(flow.record.fields()));
    return lines;
}

std::vector<std::string> lines_of_replay(const seed_row& row, kestrel::replay_totals& totals) {
    static process_plugin silent{};
    silent.create = [](void*, flow_record*) {};
    silent.update = [](void*, flow_record*, flow_record*) {};
    silent.release = [](void*, flow_record*, int32_t) {};
    verbose_level = -2;
    played = {make_packets(row.seed, row.packets, row.kinds)};
    temporal_storage* finals =
        temporal_storage_init(64, 88 + sizeof(kestrel::replay_stamp), nullptr, "final-records");
    flow_queue* queue = kestrel::replay_queue_init(row.exponent, static_cast<int32_t>(row.active_s),
                                                   static_cast<int32_t>(row.inactive_s), finals,
                                                   nullptr, 0, row.with_plugin, &silent);
    static input_plugin input = make_input();
    flow_switch* sw = kestrel::replay_switch_init(queue, FLOW_MASK_DEFAULT, 0, &input);
    sw->clock = get_clock;
    kestrel::start_thread(kestrel::replay_loop, sw);

    std::vector<std::string> lines;
    for (;;) {
        const auto* slot = static_cast<const uint8_t*>(temporal_storage_get(finals, 100));
        if (!slot)
            continue;
        kestrel::replay_stamp stamp;
        std::memcpy(&stamp, slot + 88, sizeof stamp);
        if (stamp.ended) {
            totals = *stamp.ended;
            return lines;
        }
        lines.push_back(std::to_string(stamp.now_ns) + ": " +
                        describe(*reinterpret_cast<const flow_record*>(slot)));
    }
}

void compare(const seed_row& row) {
    replay_model model({.exponent = row.exponent,
                        .active_s = row.active_s,
                        .inactive_s = row.inactive_s,
                        .sampling = 7},
                       make_packets(row.seed, 1, row.kinds).front().time);
    const std::vector<std::string> expected = lines_of_model(row, model);
    kestrel::replay_totals totals{};
    const std::vector<std::string> actual = lines_of_replay(row, totals);
    for (size_t n = 0; n < std::max(expected.size(), actual.size()); ++n) {
        const std::string wanted = n < expected.size() ? expected[n] : "no more flows";
        const std::string got = n < actual.size() ? actual[n] : "no more flows";
        if (wanted != got)
            return say("flow " + std::to_string(n) + "\nexpected " + wanted + "\ngot      " + got);
    }
    if (totals.frames != row.packets || totals.no_flow != model.no_flow ||
        (model.no_flow == 0 && row.kinds >= 400))
        say("other totals");
    for (const uint64_t count : model.happened().ended)
        if (count == 0 && row.kinds == 400 && row.active_s < 100)
            say("not everything happened");
}

class RandomReplay : public testing::TestWithParam<seed_row> {};

TEST_P(RandomReplay, GivesTheFlowsOfTheModelInItsOrder) {
    EXPECT_EQ("", kestrel_test::run_in_child([] { compare(GetParam()); }));
}

INSTANTIATE_TEST_SUITE_P(
    Packets, RandomReplay,
    testing::Values(seed_row{"few_flows", 1, 40'000, 16, 10, 4, 3, false},
                    seed_row{"many_flows", 2, 40'000, 400, 10, 180, 10, false},
                    seed_row{"short_timeouts", 3, 40'000, 400, 10, 2, 1, false},
                    seed_row{"full_buckets", 4, 40'000, 2'000, 5, 60, 4, false},
                    seed_row{"one_by_one", 5, 30'000, 400, 8, 20, 2, true},
                    seed_row{"no_timeout", 6, 20'000, 400, 8, 30, 0, false}),
    [](const auto& test) { return test.param.name; });

}  // namespace
