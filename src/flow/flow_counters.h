// What the road up to the finished flow counts: frames read, frames that are no flow, packets into
// the flow cache and out of it. Rows of the tables are named by the enumerations here.
#pragma once

#include <cstdint>

#include "base/counters.h"
#include "flow/parser.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/record.h"

namespace kestrel {

// Written by the thread that reads the input.
enum class capture_metric { packets, bytes, count };
enum class parser_metric { not_ip, truncated, ip_version, count };

// Written under the queue's lock. The removal reasons stand in the order of enum removal_reason.
enum class cache_metric {
    packets,
    flows,
    slots,
    removed_flows,
    removed_packets = removed_flows + 5,
    count = removed_packets + 5
};

// The names that the sum of packets is made of.
inline constexpr const char* capture_packets_name = "kestrelexp_capture_packets_total";
inline constexpr const char* discarded_packets_name = "kestrelexp_parser_discarded_packets_total";
inline constexpr const char* removed_packets_name = "kestrelexp_cache_removed_packets_total";

class input_counters {
  public:
    input_counters() = default;
    // labels: the input's.
    explicit input_counters(const char* labels);

    void add_frame(const packet_header& header) const {
        capture_.add(capture_metric::packets);
        capture_.add(capture_metric::bytes, header.wire_length);
    }
    // A record of an input that delivers flows.
    void add_flow(const flow_record& flow) const {
        capture_.add(capture_metric::packets, flow.packets);
        capture_.add(capture_metric::bytes, flow.bytes);
    }
    // A frame that is no flow; result: what parse_packet returned.
    void add_discarded(flow_key result) const;

  private:
    counter_block<capture_metric> capture_;
    counter_block<parser_metric> parser_;
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

class cache_counters {
  public:
    cache_counters() = default;
    // For a queue of so many slots.
    explicit cache_counters(uint32_t slots);

    void add_packets(uint32_t packets) const { block_.add(cache_metric::packets, packets); }
    void set_flows(uint32_t flows) const { block_.set(cache_metric::flows, flows); }
    void add_removed(const flow_record& flow, int32_t reason) const;

    uint64_t packets() const { return block_.value(cache_metric::packets); }

  private:
    counter_block<cache_metric> block_;
};

}  // namespace kestrel
