// Tests of the loops between input, parser, ring and queue. They never end, so each test runs in a
// process of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "base/thread.h"
#include "flow/flow_cache.h"
#include "flow/ring.h"
#include "kestrelexp/service.h"
#include "tests/support/child.h"
#include "tests/support/frame_builder.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

constexpr int32_t never_s = 2'000'000'000;  // an inactive timeout from the epoch to today, and more

std::atomic<unsigned> calls = 0;  // of the input's get operation

input_plugin make_input() {
    input_plugin input{};
    input.init = [](char*, int, uint16_t) -> void* { return &calls; };
    input.sampling = [](void*) -> uint32_t { return 100; };
    return input;
}

void say(const std::string& text) {
    (void)!write(STDERR_FILENO, text.data(), text.size());
}

// The parts of the probe around an input: ring, queue with remover, switch thread.
struct probe {
    temporal_storage* finals;
    flow_queue* queue;

    void start(input_plugin input, void* (*loop)(void*), process_plugin* plugin = nullptr) {
        finals = temporal_storage_init(64, 88, nullptr, "final-records");
        queue = queue_init(5, 180, never_s, finals, nullptr, 0, plugin ? 1 : 0, plugin);
        start_thread(loop, sw_init(queue, FLOW_MASK_DEFAULT, 0, &input));
    }
    // Waits until the queue has seen so many packets.
    void wait_for_packets(uint64_t packets) const {
        for (uint64_t seen = 0; seen < packets; usleep(1'000)) {
            queue->lock.lock();
            seen = queue->tally.packets;
            queue->lock.unlock();
        }
    }
    // The next finished flow; the test's process is ended when none ever comes.
    const flow_record& next() const {
        for (;;) {
            if (const void* record = temporal_storage_get(finals, 10))
                return *static_cast<const flow_record*>(record);
        }
    }
    static void flush() { std::atomic_ref(queue_force_flush).store(1); }
};

// Ten frames of two flows with an ARP frame in between; then nothing any more.
const uint8_t* ten_frames(void*, packet_header* header) {
    static const frame_bytes frames[] = {
        frame_builder().macs().u16(0x0800).ipv4(17, 100).udp(53, 4444).done(),
        frame_builder().macs().u16(0x0806).zeros(46).done(),
        frame_builder().macs().u16(0x0800).ipv4(6, 60).tcp(80, 50000, 0x10).done(),
    };
    const unsigned call = calls++;
    if (call >= 15) {
        usleep(10'000);
        return nullptr;
    }
    const frame_bytes& frame = frames[call % 3];
    const auto length = static_cast<uint32_t>(frame.size());
    *header = {1'000'000 + call, length, length, 3, 4};
    return frame.data();
}

TEST(SwitchLoop, PacketsOfAnInputBecomeFlows) {
    const std::string said = run_in_child([] {
        probe p;
        input_plugin input = make_input();
        input.get_packet = ten_frames;
        p.start(input, sw_main_loop);
        p.wait_for_packets(10);
        probe::flush();
        for (int n = 0; n < 2; ++n) {
            const flow_record& flow = p.next();
            say(std::to_string(flow.l4protocol) + ": " + std::to_string(flow.packets) +
                " packets, " + std::to_string(flow.bytes) + " bytes, " +
                std::to_string(flow.start) + " to " + std::to_string(flow.end) + ", interfaces " +
                std::to_string(flow.inputsnmp) + " " + std::to_string(flow.outputsnmp) +
                ", sampling " + std::to_string(flow.sampling) + "\n");
        }
    });
    // The order is that of the keys' buckets.
    EXPECT_NE(std::string::npos,
              said.find("17: 5 packets, 500 bytes, 1000000 to 1000012, interfaces 3 4, "
                        "sampling 100\n"));
    EXPECT_NE(std::string::npos,
              said.find("6: 5 packets, 300 bytes, 1000002 to 1000014, interfaces 3 4, "
                        "sampling 100\n"));
}

// Delivers records 1, 2, 3 ... with "nothing" and a half-filled record between any two of them.
flow_key every_third(void*, flow_record* record) {
    const unsigned call = calls++;
    if (call >= 300) {
        usleep(10'000);
        return 0;
    }
    if (call % 3 != 0) {
        record->bytes = 999'999;
        record->tcpflags = 0xFF;
        return call % 3 == 1 ? 0 : INT64_MAX;
    }
    record->start = record->end = call + 1;
    record->export_flag = 1;  // straight through the queue
    record->bytes += call;
    return -1;
}

TEST(SwitchLoop, NonNegativeKeysDoNotMoveTheRing) {
    const std::string said = run_in_child([] {
        probe p;
        input_plugin input = make_input();
        input.get_flow = every_third;
        p.start(input, sw_main_loop);
        for (unsigned n = 0; n < 100; ++n) {
            const flow_record& record = p.next();
            if (record.end != 3 * n + 1 || record.bytes != 3 * n || record.tcpflags != 0 ||
                record.packets != 1)
                say("record " + std::to_string(n) + " is wrong\n");
        }
        say(temporal_storage_get(p.finals, 50) ? "more" : "no more");
    });
    EXPECT_EQ("no more", said);
}

TEST(SwitchLoop, ExchangeRingHasAnEighthOfTheQueueAndRoomForTheKey) {
    const std::string said = run_in_child([] {
        verbose_level = 0;
        probe p;
        input_plugin input = make_input();
        input.get_packet = ten_frames;
        p.start(input, sw_main_loop);
        p.wait_for_packets(10);
    });
    EXPECT_NE(std::string::npos, said.find("VERBOSE: 0:Temporal storage init: 4 of 96 "
                                           "(mem: 0 KiB) parser-xchange\n"));
}

// An input of one-packet records that can show the frame of each, and a plugin that looks.
// Every second call gives none.
const uint8_t shown_frames[5][4] = {{1, 0, 0, 0}, {}, {2, 0, 0, 0}, {}, {3, 0, 0, 0}};

flow_key three_records(void*, flow_record* record) {
    const unsigned call = calls++;
    if (call >= 5)
        usleep(10'000);
    if (call >= 5 || call % 2 != 0)
        return 0;
    record->start = record->end = 100 + call;
    return -1;
}
const uint8_t* frame_behind(void*, uint32_t* captured, uint32_t* header) {
    const unsigned call = calls - 1;
    *captured = 4;
    *header = call % 4;
    return shown_frames[call];
}
void look_at_packet(const char* when) {
    uint32_t captured;
    uint32_t header;
    const uint8_t* data = get_packet_data(&captured, &header);
    say(std::string(when) + (data ? std::to_string(data[0]) : "none") + "/" +
        std::to_string(captured) + "/" + std::to_string(header) + " ");
}

TEST(SwitchLoop, ProcessPluginSeesTheFrameBehindEachRecord) {
    const std::string said = run_in_child([] {
        static process_plugin plugin{};
        plugin.create = [](void*, flow_record*) { look_at_packet("create "); };
        plugin.update = [](void*, flow_record*, flow_record*) { look_at_packet("update "); };
        plugin.release = [](void*, flow_record*, int32_t) {};
        probe p;
        input_plugin input = make_input();
        input.get_flow = three_records;
        input.get_flow_packet = frame_behind;
        p.start(input, sw_main_loop, &plugin);
        p.wait_for_packets(3);
    });
    EXPECT_EQ("create 1/4/0 update 2/4/2 update 3/4/0 ", said);
}

TEST(SwitchLoop, DirectFormMakesNoExchangeRing) {
    const std::string said = run_in_child([] {
        static process_plugin plugin{};
        plugin.create = [](void*, flow_record*) {};
        plugin.update = [](void*, flow_record*, flow_record*) {};
        plugin.release = [](void*, flow_record*, int32_t) {};
        verbose_level = 0;
        probe p;
        input_plugin input = make_input();
        input.get_flow = three_records;
        input.get_flow_packet = frame_behind;
        p.start(input, sw_main_loop, &plugin);
        p.wait_for_packets(3);
    });
    EXPECT_EQ(std::string::npos, said.find("parser-xchange"));
    EXPECT_NE(std::string::npos, said.find("final-records"));
}

TEST(SwitchLoop, WithoutProcessPluginsTheSplitFormIsUsed) {
    const std::string said = run_in_child([] {
        verbose_level = 0;
        probe p;
        input_plugin input = make_input();
        input.get_flow = three_records;
        input.get_flow_packet = frame_behind;
        p.start(input, sw_main_loop);
        p.wait_for_packets(3);
    });
    EXPECT_NE(std::string::npos, said.find("parser-xchange"));
}

// 200 finished flows, every second call giving none.
flow_key finished_flows(void*, flow_record* record) {
    const unsigned call = calls++;
    record->bytes += call;
    if (call >= 400)
        usleep(10'000);
    return call % 2 == 0 && call < 400 ? 0 : 1;
}

TEST(SwitchLoop, FinishedFlowsBypassTheQueue) {
    const std::string said = run_in_child([] {
        probe p;
        input_plugin input = make_input();
        input.get_final_flow = finished_flows;
        p.start(input, plugin_final_flow_loop);
        for (unsigned n = 0; n < 200; ++n) {
            const flow_record& record = p.next();
            if (record.bytes != 2 * n || record.packets != 1)
                say("record " + std::to_string(n) + " is wrong\n");
        }
        say(temporal_storage_get(p.finals, 50) ? "more" : "no more");
        say(p.queue->tally.packets == 0 ? ", queue untouched" : ", queue used");
    });
    EXPECT_EQ("no more, queue untouched", said);
}

}  // namespace
