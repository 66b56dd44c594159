#include "export/send_account.h"

#include "base/export_metrics.h"

namespace kestrel {
namespace {

counter_block<send_metric> make_block(const char* refusal) {
    const metric_row rows[] = {
        sent_records_row,
        sent_packets_row,
        lost_records_row(refusal),
        lost_packets_row(refusal),
        lost_records_row("reason=\"send\""),
        lost_packets_row("reason=\"send\""),
        sent_messages_row,
        sent_bytes_row,
        failed_messages_row,
        {"kestrelexp_export_reconnects_total", "Connections that replaced one that broke.", nullptr,
         METRIC_COUNTER},
        export_up_row,
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
