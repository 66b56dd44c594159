// The rows of the metrics that every export has, whoever counts them: the record loop for what it
// keeps back, an exporter for what it sends itself, an outlet for what it sends for an exporter.
#pragma once

#include "kestrelexp/metrics.h"

namespace kestrel {

inline constexpr metric_row sent_records_row = {"kestrelexp_export_records_total",
                                                "Records that the export has sent.", nullptr,
                                                METRIC_COUNTER};
inline constexpr metric_row sent_packets_row = {"kestrelexp_export_packets_total",
                                                "Packets in the records that the export has sent.",
                                                nullptr, METRIC_COUNTER};
inline constexpr metric_row sent_messages_row = {"kestrelexp_export_messages_total",
                                                 "Messages that the export has sent.", nullptr,
                                                 METRIC_COUNTER};
inline constexpr metric_row sent_bytes_row = {"kestrelexp_export_bytes_total",
                                              "Bytes of these messages.", nullptr, METRIC_COUNTER};
inline constexpr metric_row failed_messages_row = {"kestrelexp_export_failed_messages_total",
                                                   "Messages that could not be sent.", nullptr,
                                                   METRIC_COUNTER};
inline constexpr metric_row export_up_row = {
    "kestrelexp_export_up", "1 while the export has its collector, 0 while it does not.", nullptr,
    METRIC_GAUGE};
// Of an export whose collectors each get every record.
inline constexpr metric_row export_copies_row = {
    "kestrelexp_export_copies", "Collectors that each record is sent to.", nullptr, METRIC_GAUGE};

inline constexpr const char* lost_packets_name = "kestrelexp_export_lost_packets_total";

// reason: the label reason="...", borrowed while the row is registered.
constexpr metric_row lost_records_row(const char* reason) {
    return {"kestrelexp_export_lost_records_total",
            "Records that the export has not sent, by reason.", reason, METRIC_COUNTER};
}
constexpr metric_row lost_packets_row(const char* reason) {
    return {lost_packets_name, "Packets in the records that were not sent, by reason.", reason,
            METRIC_COUNTER};
}

}  // namespace kestrel
