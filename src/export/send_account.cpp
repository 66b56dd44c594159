#include "export/send_account.h"

namespace kestrel {
namespace {

constexpr const char* lost_records_name = "kestrelexp_export_lost_records_total";
constexpr const char* lost_packets_name = "kestrelexp_export_lost_packets_total";
constexpr const char* lost_records_help = "Records that the export has not sent, by reason.";
constexpr const char* lost_packets_help = "Packets in the records that were not sent, by reason.";

counter_block<send_metric> make_block(const char* refusal) {
    const metric_row rows[] = {
        {"kestrelexp_export_records_total", "Records that the export has sent.", nullptr,
         METRIC_COUNTER},
        {"kestrelexp_export_packets_total", "Packets in the records that the export has sent.",
         nullptr, METRIC_COUNTER},
        {lost_records_name, lost_records_help, refusal, METRIC_COUNTER},
        {lost_packets_name, lost_packets_help, refusal, METRIC_COUNTER},
        {lost_records_name, lost_records_help, "reason=\"send\"", METRIC_COUNTER},
        {lost_packets_name, lost_packets_help, "reason=\"send\"", METRIC_COUNTER},
        {"kestrelexp_export_messages_total", "Messages that the export has sent.", nullptr,
         METRIC_COUNTER},
        {"kestrelexp_export_bytes_total", "Bytes of these messages.", nullptr, METRIC_COUNTER},
        {"kestrelexp_export_failed_messages_total", "Messages that could not be sent.", nullptr,
         METRIC_COUNTER},
        {"kestrelexp_export_reconnects_total", "Connections that replaced one that broke.", nullptr,
         METRIC_COUNTER},
        {"kestrelexp_export_up", "1 while the export has its collector, 0 while it does not.",
         nullptr, METRIC_GAUGE},
        {"kestrelexp_export_last_success_timestamp_seconds",
         "When a message was sent last, seconds since the epoch; 0: never.", nullptr, METRIC_GAUGE},
    };
    return {rows, metrics_label()};
}

}  // namespace

// The exporter ends the program when it cannot connect.
send_account::send_account(const char* refusal) : block_(make_block(refusal)) {
    block_.set(send_metric::is_up, 1);
}

}  // namespace kestrel
