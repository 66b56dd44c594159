// What the road up to the finished flow counts: frames read, frames that are no flow, packets into
// the flow cache and out of it. Rows of the tables are named by the enumerations here.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

#include "base/counters.h"
#include "flow/parser.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/plugin.h"
#include "kestrelexp/record.h"

namespace kestrel {

// Written by the thread that reads the input.
enum class capture_metric { packets, bytes, count };
enum class parser_metric { not_ip, truncated, ip_version, count };
enum class undelivered_metric {
    ring_dropped,
    card_dropped,
    sampled_out,
    interface_changes,
    unread,
    count
};
enum class input_state_metric { is_up, count };

// Written under the queue's lock. The removal reasons stand in the order of enum removal_reason.
enum class cache_metric {
    records,
    packets,
    bytes,
    flows,
    slots,
    removed_flows,
    removed_packets = removed_flows + 5,
    count = removed_packets + 5
};

// The names that the sum of packets is made of.
inline constexpr const char* capture_packets_name = "kestrelexp_capture_packets_total";
inline constexpr const char* sampled_out_packets_name =
    "kestrelexp_capture_sampled_out_packets_total";
inline constexpr const char* unread_packets_name = "kestrelexp_capture_unread_packets";
inline constexpr const char* discarded_packets_name = "kestrelexp_parser_discarded_packets_total";
inline constexpr const char* removed_packets_name = "kestrelexp_cache_removed_packets_total";

class input_counters {
  public:
    input_counters() = default;
    // labels: the input's.
    // tells_state: the gauge is ours. Of several lanes one tells, as readers see the sum.
    explicit input_counters(const char* labels, bool tells_state = true);
    // The input will be asked for what it did not deliver.
    void expect_counts(const char* labels);

    void add_frame(const packet_header& header) const {
        capture_.add(capture_metric::packets);
        capture_.add(capture_metric::bytes, header.wire_length);
    }
    void add_frames(std::span<const input_frame> frames) const {
        uint64_t bytes = 0;
        for (const input_frame& frame : frames)
            bytes += frame.header.wire_length;
        capture_.add(capture_metric::packets, frames.size());
        capture_.add(capture_metric::bytes, bytes);
    }
    // A record of an input that delivers flows.
    void add_flow(const flow_record& flow) const {
        capture_.add(capture_metric::packets, flow.packets);
        capture_.add(capture_metric::bytes, flow.bytes);
    }
    // A frame that is no flow; result: what parse_packet returned.
    void add_discarded(flow_key result) const;
    // What the input tells of frames that it did not deliver; after expect_counts.
    void take(const input_counts& now);
    // No frames are taken any more.
    void set_down() const { state_.set(input_state_metric::is_up, 0); }

  private:
    counter_block<capture_metric> capture_;
    counter_block<parser_metric> parser_;
    counter_block<undelivered_metric> undelivered_;
    counter_block<input_state_metric> state_;
    input_counts told_{};  // last time
    bool tells_state_ = false;
};

// Takes a frame that the input has delivered into a prepared record. Returns the key, or
// something that is not negative when the frame is no flow.
inline flow_key take_frame(const input_counters& counters, const uint8_t* frame,
                           const packet_header& header, uint32_t sampling, flow_record& record) {
    counters.add_frame(header);
    const flow_key key = parse_packet(frame, header, sampling, record);
    if (key >= 0) [[unlikely]]
        counters.add_discarded(key);
    return key;
}

// The row of a removal reason; any that is not enum removal_reason's is another one.
inline constexpr uint32_t other_removals = 4;
static_assert(REMOVAL_ACTIVE == 0 && REMOVAL_INACTIVE == 1 && REMOVAL_COLLISION == 2 &&
              REMOVAL_FORCED == 3);
constexpr cache_metric removal_metric(cache_metric first, uint32_t row) {
    return static_cast<cache_metric>(static_cast<uint32_t>(first) + row);
}

// What came into the flow cache since it was made, as its own plain numbers.
struct cache_tally {
    uint64_t records;  // packet records; one is a packet, or several of an input that sums them up
    uint64_t packets;
    uint64_t bytes;

    void add(const flow_record& packet) {
        records += 1;
        packets += packet.packets;
        bytes += packet.bytes;
    }
};

class cache_counters {
  public:
    cache_counters() = default;
    // For a queue of so many slots.
    explicit cache_counters(uint32_t slots);

    // Shows readers what has come in and how many flows there are. Not for each packet but whenever
    // the lock is let go, so that a batch of packets pays once.
    void publish(const cache_tally& tally, uint32_t flows) const {
        block_.set(cache_metric::records, tally.records);
        block_.set(cache_metric::packets, tally.packets);
        block_.set(cache_metric::bytes, tally.bytes);
        block_.set(cache_metric::flows, flows);
    }
    void set_slots(uint32_t slots) const { block_.set(cache_metric::slots, slots); }
    // A flow has left; reason: enum removal_reason, or a plugin's own.
    void add_removed(const flow_record& flow, int32_t reason) const {
        const uint32_t row = std::min(static_cast<uint32_t>(reason), other_removals);
        block_.add(removal_metric(cache_metric::removed_flows, row));
        block_.add(removal_metric(cache_metric::removed_packets, row), flow.packets);
    }

    // Any thread.
    uint64_t value(cache_metric metric) const { return block_.value(metric); }
    uint64_t removed_flows() const;  // for whatever reason
    uint64_t collided_flows() const;

  private:
    counter_block<cache_metric> block_;
};

}  // namespace kestrel
