#include "flow/flow_counters.h"

#include <gtest/gtest.h>

#include <string>

#include "flow/flow_cache_update.h"
#include "tests/support/parser_fixture.h"
#include "tests/support/queue_fixture.h"

namespace {

using namespace kestrel;
using namespace kestrel_test;

// The growth of a metric since the object was made; other tests count as well.
class growth {
  public:
    growth(std::string name, std::string labels)
        : name_(std::move(name)), labels_(std::move(labels)), before_(now()) {}
    uint64_t now() const { return metrics_sum(name_, labels_); }
    uint64_t operator()() const { return now() - before_; }

  private:
    std::string name_;
    std::string labels_;
    uint64_t before_;
};

// ---- Frames ----

class DiscardedFrames : public parser_fixture {
  protected:
    // What take_frame returns for the frame, cut to so many bytes.
    flow_key take(const frame_bytes& frame, size_t captured = SIZE_MAX) {
        frame_ = frame;
        packet_header header{};
        header.wire_length = 1500;
        header.captured_length = static_cast<uint32_t>(std::min(captured, frame.size()));
        return take_frame(counters_, frame_.data(), header, 0, record());
    }

    input_counters counters_{"input=\"taken\""};
    growth packets_{"kestrelexp_capture_packets_total", "input=\"taken\""};
    growth bytes_{"kestrelexp_capture_bytes_total", "input=\"taken\""};
    growth not_ip_{"kestrelexp_parser_discarded_packets_total", "reason=\"not_ip\""};
    growth truncated_{"kestrelexp_parser_discarded_packets_total", "reason=\"truncated\""};
    growth ip_version_{"kestrelexp_parser_discarded_packets_total", "reason=\"ip_version\""};

  private:
    frame_bytes frame_;
};

TEST_F(DiscardedFrames, AFlowIsCountedWithItsBytesOnTheWireAndNotDiscarded) {
    EXPECT_GT(0, take(udp_frame()));
    EXPECT_EQ(1u, packets_());
    EXPECT_EQ(1500u, bytes_());
    EXPECT_EQ(0u, not_ip_() + truncated_() + ip_version_());
}

TEST_F(DiscardedFrames, AnotherEtherTypeIsNoIp) {
    EXPECT_LE(0, take(frame_builder().macs().u16(0x0806).zeros(28).done()));
    EXPECT_LE(0, take(frame_builder().macs().u16(0x8100).u16(7).u16(0x0806).zeros(28).done()));
    EXPECT_EQ(2u, packets_());
    EXPECT_EQ(2u, not_ip_());
    EXPECT_EQ(0u, truncated_() + ip_version_());
}

TEST_F(DiscardedFrames, AFrameThatEndsBeforeItsIpHeaderIsTruncated) {
    const frame_bytes tagged =
        frame_builder().macs().u16(0x8100).u16(7).u16(0x0800).ipv4(17, 28).udp(1, 2).done();
    for (const size_t captured : {0, 5, 13, 14, 16, 17, 18})
        EXPECT_LE(0, take(tagged, captured)) << captured;
    EXPECT_GT(0, take(tagged, 19));
    EXPECT_EQ(7u, truncated_());
    EXPECT_EQ(0u, not_ip_() + ip_version_());
}

TEST_F(DiscardedFrames, ALabelStackWithoutAnEndIsTruncated) {
    EXPECT_LE(0, take(frame_builder().macs().u16(0x8847).u32(0x10000).u32(0x10000).done()));
    EXPECT_EQ(1u, truncated_());
}

TEST_F(DiscardedFrames, AVersionThatIsNeitherFourNorSixIsTold) {
    frame_bytes frame = udp_frame();
    frame[14] = 0x55;
    EXPECT_LE(0, take(frame));
    EXPECT_EQ(1u, ip_version_());
    EXPECT_EQ(0u, not_ip_() + truncated_());
}

TEST_F(DiscardedFrames, PluginsSeeNoReason) {
    EXPECT_EQ(0u, parse(frame_builder().macs().u16(0x0806).zeros(28).done()));
    EXPECT_EQ(0u, parse({}));
}

// ---- What the input did not deliver ----

TEST(Undelivered, WhatTheInputTellsIsShownAndItsSampledFramesAreReceivedOnes) {
    const std::string label = "input=\"telling\"";
    input_counters counters(label.c_str());
    const auto value = [&label](const std::string& name, const std::string& more = "") {
        return metrics_sum("kestrelexp_capture_" + name, label + more);
    };
    EXPECT_EQ(1u, value("up"));
    EXPECT_FALSE(metrics_known("kestrelexp_capture_dropped_packets_total", label));
    counters.expect_counts(label.c_str());
    packet_header header{};
    header.wire_length = 60;
    counters.add_frame(header);
    counters.take({.ring_dropped_packets = 7,
                   .card_dropped_packets = 3,
                   .sampled_out_packets = 20,
                   .sampled_out_bytes = 2000,
                   .interface_changes = 1,
                   .unread_packets = 5,
                   .is_up = 0});
    EXPECT_EQ(7u, value("dropped_packets_total", ",stage=\"ring\""));
    EXPECT_EQ(3u, value("dropped_packets_total", ",stage=\"card\""));
    EXPECT_EQ(20u, value("sampled_out_packets_total"));
    EXPECT_EQ(1u, value("interface_changes_total"));
    EXPECT_EQ(5u, value("unread_packets"));
    EXPECT_EQ(0u, value("up"));
    EXPECT_EQ(21u, value("packets_total"));
    EXPECT_EQ(2060u, value("bytes_total"));
    counters.take({.ring_dropped_packets = 7,
                   .card_dropped_packets = 3,
                   .sampled_out_packets = 22,
                   .sampled_out_bytes = 2200,
                   .interface_changes = 2,
                   .unread_packets = 0,
                   .is_up = 1});
    EXPECT_EQ(23u, value("packets_total"));
    EXPECT_EQ(2260u, value("bytes_total"));
    EXPECT_EQ(0u, value("unread_packets"));
    EXPECT_EQ(1u, value("up"));
}

TEST(Undelivered, OneLaneTellsWhetherFramesCanBeTaken) {
    const std::string label = "input=\"in lanes\"";
    input_counters first(label.c_str());
    input_counters second(label.c_str(), false);
    const auto is_up = [&label] { return metrics_sum("kestrelexp_capture_up", label); };
    EXPECT_EQ(1u, is_up());
    first.expect_counts(label.c_str());
    second.expect_counts(label.c_str());
    input_counts up{};
    up.is_up = 1;
    first.take({});
    second.take(up);
    EXPECT_EQ(0u, is_up());
    first.take(up);
    EXPECT_EQ(1u, is_up());
}

// ---- The cache ----

class CacheCounters : public queue_fixture {
  protected:
    growth packets_{"kestrelexp_cache_packets_total", ""};
};

growth removed_flows(const std::string& reason) {
    return {"kestrelexp_cache_removed_flows_total", "reason=\"" + reason + "\""};
}
growth removed_packets(const std::string& reason) {
    return {"kestrelexp_cache_removed_packets_total", "reason=\"" + reason + "\""};
}

TEST_F(CacheCounters, PacketsComeInAndLeaveWithTheirFlowByReason) {
    make();
    const growth forced_flows = removed_flows("forced");
    const growth forced_packets = removed_packets("forced");
    for (uint64_t n = 0; n < 3; ++n)
        update(key_of(1), {.end = 100 + n});
    update(key_of(2), {.end = 100});
    EXPECT_EQ(4u, packets_());
    EXPECT_EQ(0u, forced_flows());
    remove_all();
    EXPECT_EQ(2u, forced_flows());
    EXPECT_EQ(4u, forced_packets());
}

TEST_F(CacheCounters, AVictimLeavesByCollision) {
    make();
    const growth flows = removed_flows("collision");
    const growth packets = removed_packets("collision");
    update(key_of(0), {.end = 100});
    update(key_of(0), {.end = 101});
    for (uint64_t n = 1; n < 9; ++n)
        update(key_of(n), {.end = 100});
    EXPECT_EQ(1u, flows());
    EXPECT_EQ(2u, packets());
    EXPECT_EQ(10u, packets_());
}

TEST_F(CacheCounters, AnActiveFlowLeavesByItsTimeout) {
    make();
    const growth flows = removed_flows("active");
    const growth packets = removed_packets("active");
    update(key_of(1), {.end = 0});
    update(key_of(1), {.end = active_ns});
    EXPECT_EQ(1u, flows());
    EXPECT_EQ(1u, packets());
}

TEST_F(CacheCounters, AReasonOfAPluginsOwnIsAnotherOne) {
    make();
    const growth flows = removed_flows("other");
    packet_buffer packet = make_packet({.end = 1});
    packet.record().packets = 6;
    const growth packets = removed_packets("other");
    for (const int32_t reason : {-1, 4, 1000})
        queue_remove_record_oneshot(queue_, &packet.record(), reason);
    EXPECT_EQ(3u, flows());
    EXPECT_EQ(18u, packets());
}

TEST_F(CacheCounters, RecordsPacketsAndBytesAreShownWhenTheLockIsLetGo) {
    make();
    const growth records{"kestrelexp_cache_records_total", ""};
    const growth bytes{"kestrelexp_cache_bytes_total", ""};
    packet_buffer packet = make_packet({.end = 100, .bytes = 500});
    packet.record().packets = 4;
    queue_->lock.lock();
    queue_update_locked(*queue_, packet.record(), key_of(1));
    EXPECT_EQ(0u, records());
    queue_unlock(*queue_);
    EXPECT_EQ(1u, records());
    EXPECT_EQ(4u, packets_());
    EXPECT_EQ(500u, bytes());
}

TEST_F(CacheCounters, TheGaugesTellFlowsAndSlots) {
    const growth flows{"kestrelexp_cache_flows", ""};
    const growth slots{"kestrelexp_cache_slots", ""};
    make();
    EXPECT_EQ(32u, slots());
    update(key_of(1), {.end = 100});
    update(key_of(2), {.end = 100});
    EXPECT_EQ(2u, flows());
    remove_all();
    EXPECT_EQ(0u, flows());
}

}  // namespace
