// The metrics of the program that this plugin goes by. Any of them may be missing in a program that
// does not count it; then nothing is said about it.
#pragma once

#include <string_view>

namespace metrics::names {

inline constexpr std::string_view build_info = "kestrelexp_build_info";
inline constexpr std::string_view capture_packets = "kestrelexp_capture_packets_total";
inline constexpr std::string_view capture_bytes = "kestrelexp_capture_bytes_total";
inline constexpr std::string_view capture_up = "kestrelexp_capture_up";
inline constexpr std::string_view capture_dropped = "kestrelexp_capture_dropped_packets_total";
inline constexpr std::string_view capture_left_out = "kestrelexp_capture_sampled_out_packets_total";
inline constexpr std::string_view parser_discarded = "kestrelexp_parser_discarded_packets_total";
inline constexpr std::string_view cache_packets = "kestrelexp_cache_packets_total";
inline constexpr std::string_view cache_flows = "kestrelexp_cache_flows";
inline constexpr std::string_view cache_slots = "kestrelexp_cache_slots";
inline constexpr std::string_view removed_flows = "kestrelexp_cache_removed_flows_total";
inline constexpr std::string_view removed_packets = "kestrelexp_cache_removed_packets_total";
inline constexpr std::string_view handed_records = "kestrelexp_handed_records_total";
inline constexpr std::string_view handed_packets = "kestrelexp_handed_packets_total";
inline constexpr std::string_view export_up = "kestrelexp_export_up";
inline constexpr std::string_view export_records = "kestrelexp_export_records_total";
inline constexpr std::string_view export_packets = "kestrelexp_export_packets_total";
inline constexpr std::string_view export_messages = "kestrelexp_export_messages_total";
inline constexpr std::string_view export_bytes = "kestrelexp_export_bytes_total";
inline constexpr std::string_view export_failed = "kestrelexp_export_failed_messages_total";
inline constexpr std::string_view export_lost_records = "kestrelexp_export_lost_records_total";
inline constexpr std::string_view export_lost_packets = "kestrelexp_export_lost_packets_total";
inline constexpr std::string_view export_reconnects = "kestrelexp_export_reconnects_total";
inline constexpr std::string_view export_last_success =
    "kestrelexp_export_last_success_timestamp_seconds";
inline constexpr std::string_view export_template_restarts =
    "kestrelexp_export_template_restarts_total";
inline constexpr std::string_view broker_up = "kestrelexp_kafka_broker_up";
inline constexpr std::string_view broker_round_trip =
    "kestrelexp_kafka_broker_round_trip_microseconds";
inline constexpr std::string_view ring_slots = "kestrelexp_ring_slots";
inline constexpr std::string_view ring_used = "kestrelexp_ring_used_slots";
inline constexpr std::string_view ring_waits = "kestrelexp_ring_waits_total";
inline constexpr std::string_view ring_wait_time = "kestrelexp_ring_wait_microseconds_total";

}  // namespace metrics::names
