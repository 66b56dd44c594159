// The tables of an outlet's counters; see outlet_account.h. Numbers that no metric shows have cells
// of their own beside.
#include "base/outlet_account.h"

#include "base/export_metrics.h"
#include "base/memory.h"

namespace kestrel {
namespace {

constexpr metric_row queued_messages = {"kestrelexp_export_queued_messages",
                                        "Messages that wait to be sent or acknowledged.", nullptr,
                                        METRIC_GAUGE};
constexpr metric_row queued_records = {"kestrelexp_export_queued_records",
                                       "Records in the messages that wait.", nullptr, METRIC_GAUGE};
constexpr metric_row queued_packets = {"kestrelexp_export_queued_packets",
                                       "Packets in the records that wait.", nullptr, METRIC_GAUGE};
constexpr metric_row queued_bytes = {"kestrelexp_export_queued_bytes",
                                     "Bytes of the messages that wait.", nullptr, METRIC_GAUGE};

// Registered first: a snapshot that reads what has ended before what was offered never finds more
// of the former.
constexpr metric_row worker_rows[] = {
    queued_messages,
    queued_records,
    queued_packets,
    queued_bytes,
    sent_messages_row,
    sent_records_row,
    sent_packets_row,
    sent_bytes_row,
    lost_records_row("reason=\"send\""),
    lost_packets_row("reason=\"send\""),
    lost_records_row("reason=\"unacknowledged\""),
    lost_packets_row("reason=\"unacknowledged\""),
    lost_records_row("reason=\"not_drained\""),
    lost_packets_row("reason=\"not_drained\""),
    failed_messages_row,
};

constexpr metric_row producer_rows[] = {
    queued_messages,
    queued_records,
    queued_packets,
    queued_bytes,
    lost_records_row("reason=\"queue_full\""),
    lost_packets_row("reason=\"queue_full\""),
    failed_messages_row,
};

template <size_t count>
metric_cell* make_cells(const metric_row (&rows)[count]) {
    return metrics_register(rows, count, metrics_label());
}

metric_cell* make_cell() {
    return make_lifelong<metric_cell>();
}

uint64_t value_of(const metric_cell* cell) {
    return __atomic_load_n(&cell->value, __ATOMIC_RELAXED);
}

}  // namespace

outlet_account::outlet_account() {
    metric_cell* const worker = make_cells(worker_rows);
    metric_cell* const producer = make_cells(producer_rows);
    queued_ = {producer, producer + 1, producer + 2, producer + 3};
    ended_ = {worker, worker + 1, worker + 2, worker + 3};
    fates_[OUTLET_SENT] = {worker + 4, worker + 5, worker + 6, worker + 7};
    fates_[OUTLET_UNSENT] = {make_cell(), worker + 8, worker + 9, make_cell()};
    fates_[OUTLET_UNACKNOWLEDGED] = {make_cell(), worker + 10, worker + 11, make_cell()};
    fates_[OUTLET_NOT_DRAINED] = {make_cell(), worker + 12, worker + 13, make_cell()};
    fates_[OUTLET_QUEUE_FULL] = {make_cell(), producer + 4, producer + 5, make_cell()};
    failed_deliveries_ = worker + 14;
    failed_offers_ = producer + 6;
}

void outlet_account::add_dropped(const outlet_message& message) const {
    add(fates_[OUTLET_QUEUE_FULL], message);
    subtract(queued_, message);
    metric_add(failed_offers_, 1);
}

void outlet_account::add_ended(const outlet_message& message, outlet_fate fate) const {
    add(fates_[fate], message);
    subtract(ended_, message);
    metric_add(failed_deliveries_, fate == OUTLET_SENT ? 0 : 1);
}

void outlet_account::read(outlet_counts& counts) const {
    for (int fate = 0; fate < OUTLET_FATES; ++fate)
        counts.fates[fate] = read(fates_[fate]);
    const outlet_count ended = read(ended_);
    const outlet_count offered = read(queued_);
    counts.queued = {offered.messages + ended.messages, offered.records + ended.records,
                     offered.packets + ended.packets, offered.bytes + ended.bytes};
}

void outlet_account::add(const tally& to, const outlet_message& message) {
    metric_add(to.messages, 1);
    metric_add(to.records, message.records);
    metric_add(to.packets, message.packets);
    metric_add(to.bytes, message.length);
}

void outlet_account::subtract(const tally& from, const outlet_message& message) {
    metric_add(from.messages, uint64_t{0} - 1);
    metric_add(from.records, uint64_t{0} - message.records);
    metric_add(from.packets, uint64_t{0} - message.packets);
    metric_add(from.bytes, uint64_t{0} - message.length);
}

outlet_count outlet_account::read(const tally& of) {
    return {value_of(of.messages), value_of(of.records), value_of(of.packets), value_of(of.bytes)};
}

}  // namespace kestrel
