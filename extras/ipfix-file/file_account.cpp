#include "file_account.h"

#include <ctime>
#include <iterator>

namespace ipfix_file {
namespace {

enum cell { refused_records, refused_packets, failed_writes, files, is_up, last_success_s };

constexpr metric_row rows[] = {
    {"kestrelexp_export_lost_records_total", "Records that the export has not sent, by reason.",
     "reason=\"no_template\"", METRIC_COUNTER},
    {"kestrelexp_export_lost_packets_total",
     "Packets in the records that were not sent, by reason.", "reason=\"no_template\"",
     METRIC_COUNTER},
    {"kestrelexp_export_failed_writes_total",
     "Times that a file could not be written, after which it was tried again.", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_export_files_total", "Files that the export has completed.", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_export_up", "1 while the export has its collector, 0 while it does not.", nullptr,
     METRIC_GAUGE},
    {"kestrelexp_export_last_success_timestamp_seconds",
     "When a message was sent last, seconds since the epoch; 0: never.", nullptr, METRIC_GAUGE},
};
static_assert(std::size(rows) == last_success_s + 1);

}  // namespace

file_account::file_account() : cells_(metrics_register(rows, std::size(rows), metrics_label())) {
    metric_set(cells_ + is_up, 1);  // the directory can be written to
}

void file_account::add_refused(const flow_record& record) const {
    metric_add(cells_ + refused_records, 1);
    metric_add(cells_ + refused_packets, record.packets);
}

// The system's time, in a replay as well: for whoever looks at the program.
void file_account::note_success() const {
    metric_set(cells_ + is_up, 1);
    metric_set(cells_ + last_success_s, static_cast<uint64_t>(std::time(nullptr)));
}

void file_account::note_failure() const {
    metric_set(cells_ + is_up, 0);
    metric_add(cells_ + failed_writes, 1);
}

void file_account::count_file() const {
    metric_add(cells_ + files, 1);
}

}  // namespace ipfix_file
