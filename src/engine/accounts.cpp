// The tables of the record loop's counters, and the sum of packets: received = no flow + in the
// cache and the rings + handed to the exports; for each export, handed = sent + lost. What is in
// the cache and the rings is counted packet by packet, apart from the counters, so that the sum can
// fail.
#include "engine/accounts.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string_view>

#include "base/export_metrics.h"
#include "base/log.h"
#include "base/wire.h"
#include "engine/switch.h"
#include "flow/flow_counters.h"
#include "flow/ring_group.h"

namespace kestrel {
namespace {

constexpr const char* handed_records_name = "kestrelexp_handed_records_total";
constexpr const char* handed_packets_name = "kestrelexp_handed_packets_total";
constexpr const char* rejected_packets_name = "kestrelexp_rejected_packets_total";

constexpr metric_row handed_rows[] = {
    {handed_records_name, "Records of flows handed to the exports.", nullptr, METRIC_COUNTER},
    {handed_packets_name, "Packets in the records handed to the exports.", nullptr, METRIC_COUNTER},
    {"kestrelexp_rejected_records_total", "Records that a global filter rejected.", nullptr,
     METRIC_COUNTER},
    {rejected_packets_name, "Packets in these records.", nullptr, METRIC_COUNTER},
};

constexpr metric_row export_state_rows[] = {export_up_row};

constexpr metric_row kept_back_rows[] = {
    lost_records_row("reason=\"filter\""),
    lost_packets_row("reason=\"filter\""),
    lost_records_row("reason=\"sampling\""),
    lost_packets_row("reason=\"sampling\""),
};

constexpr metric_row filter_rows[] = {
    {"kestrelexp_filter_rejected_records_total", "Records that a filter of an export rejected.",
     nullptr, METRIC_COUNTER},
    {"kestrelexp_filter_rejected_packets_total", "Packets in these records.", nullptr,
     METRIC_COUNTER},
};

constexpr metric_row answer_rows[] = {
    sent_records_row,
    sent_packets_row,
    lost_records_row("reason=\"refused\""),
    lost_packets_row("reason=\"refused\""),
};

constexpr int look_pause_ms = 10;
constexpr unsigned looks_limit = 100;

// Packets that have come in and are neither discarded nor handed to the exports.
struct packets_inside {
    uint64_t exchange;  // one slot holds one packet
    uint64_t cache;
    uint64_t final_records;
    int64_t difference;  // received less discarded, inside and handed
};

uint64_t packets_in_cache(const flow_queue& queue) {
    uint64_t packets = 0;
    for (uint32_t slot = 0; slot < queue.size; ++slot) {
        if (slot % block_slots == 0 && queue.map.is_block_empty(slot))
            slot += block_slots - 1;
        else if (occupied(queue.keys[slot]))
            packets += queue.fast[slot].packets();
    }
    return packets;
}

uint64_t packets_of(const void* slot) {
    const auto* const bytes = static_cast<const uint8_t*>(slot);
    return load_native<uint32_t>(bytes + offsetof(flow_record, packets));
}

// On the thread that takes the records, so that no slot is used again meanwhile.
uint64_t packets_in_final_records(const temporal_storage& storage) {
    uint64_t packets = 0;
    const uint64_t committed = storage_committed(storage);
    const storage_consumer& consumer = storage.consumer;
    for (uint64_t n = storage_taken(storage); n < committed; ++n)
        packets += packets_of(storage.buffer + n % consumer.count * consumer.slot_size);
    return packets;
}

uint64_t packets_in_exchange(const flow_switch& sw) {
    const temporal_storage* const exchange = sw.exchange.load(std::memory_order_acquire);
    if (exchange == nullptr)
        return 0;
    const uint64_t taken = storage_taken(*exchange);
    return storage_committed(*exchange) - taken;
}

int64_t difference_of(const packets_inside& inside) {
    const uint64_t accounted =
        metrics_sum(sampled_out_packets_name, "") + metrics_sum(discarded_packets_name, "") +
        inside.exchange + inside.cache + inside.final_records +
        metrics_sum(handed_packets_name, "") + metrics_sum(rejected_packets_name, "");
    return static_cast<int64_t>(metrics_sum(capture_packets_name, "") - accounted);
}

// Takes what is there of the final records, so that who waits for room in them goes on; they are
// counted and go nowhere.
uint64_t take_final_records(ring_group& final_records) {
    uint64_t packets = 0;
    while (const void* slot = final_records.get(look_pause_ms))
        packets += packets_of(slot);
    return packets;
}

// What is in one lane; nothing when its cache is not free.
std::optional<packets_inside> look_at(const flow_switch& sw) {
    flow_queue& queue = *sw.queue;
    if (!queue.lock.try_lock())
        return {};
    const packets_inside inside = {.exchange = packets_in_exchange(sw),
                                   .cache = packets_in_cache(queue),
                                   .final_records = packets_in_final_records(*queue.final_storage),
                                   .difference = 0};
    queue.lock.unlock();
    return inside;
}

// What is in all of them, and whether their inputs are closed.
std::optional<packets_inside> look_at_all(const flow_switch& first, bool& is_closed) {
    packets_inside sum{};
    is_closed = true;
    for (const flow_switch* sw = &first; sw; sw = sw->next_lane) {
        // Looked at first: what is counted before that is in what follows.
        is_closed &= sw->is_closed.load(std::memory_order_acquire);
        const auto inside = look_at(*sw);
        if (!inside)
            return {};
        sum.exchange += inside->exchange;
        sum.cache += inside->cache;
        sum.final_records += inside->final_records;
    }
    return sum;
}

// Packets are on the move for as long as threads are at work, so a sum that does not come out even
// is made again, up to a second or so. Returns what was found last; nothing when a queue was never
// free.
std::optional<packets_inside> sum_up(flow_switch& sw) {
    ask_reader(sw, close_input);
    ring_group final_records(final_rings(sw));
    std::optional<packets_inside> last;
    uint64_t taken = 0;
    for (unsigned look = 0; look < looks_limit; ++look) {
        if (look > 0)
            taken += take_final_records(final_records);
        bool is_closed = false;
        auto inside = look_at_all(sw, is_closed);
        if (!inside)
            continue;
        inside->final_records += taken;
        inside->difference = difference_of(*inside);
        last = inside;
        if (inside->difference == 0 && is_closed)
            break;
    }
    return last;
}

// The table is short: what never came up is left out, and so is the state of things.
bool is_worth_a_line(const metric_sample& sample) {
    constexpr std::string_view always[] = {capture_packets_name, handed_packets_name,
                                           sent_packets_row.name};
    if (sample.type == METRIC_GAUGE && sample.name != std::string_view(unread_packets_name))
        return false;
    return sample.value != 0 || std::ranges::find(always, sample.name) != std::end(always);
}

void say_value(const char* name, const char* labels, uint64_t value) {
    const bool has_labels = *labels != '\0';
    verbose_msg(0, "%s%s%s%s %lu", name, has_labels ? "{" : "", labels, has_labels ? "}" : "",
                value);
}

void say_difference(const char* labels, int64_t difference) {
    if (difference == 0)
        return;
    const bool has_labels = *labels != '\0';
    verbose_msg(0, "kestrelexp_unaccounted_packets%s%s%s %ld", has_labels ? "{" : "", labels,
                has_labels ? "}" : "", difference);
}

void say_inside(const packets_inside& inside) {
    say_value("kestrelexp_ring_packets", "ring=\"parser-xchange\"", inside.exchange);
    say_value("kestrelexp_cache_packets", "", inside.cache);
    say_value("kestrelexp_ring_packets", "ring=\"final-records\"", inside.final_records);
    say_difference("", inside.difference);
}

// The filter's name and its position among those of the export.
std::string label_of_filter(const export_entry& entry, size_t position) {
    const char* const name = entry.filters[position].desc()->name;
    return entry.label + "," +
           metric_label("filter", std::string(name) + "-" + std::to_string(position));
}

// The two sums of an export, each of which has to come out even: handed = sent + lost.
struct sum_names {
    const char* handed;
    const char* sent;
    const char* lost;
};
constexpr sum_names sum_of_packets = {handed_packets_name, sent_packets_row.name,
                                      lost_packets_name};
constexpr sum_names sum_of_records = {handed_records_name, sent_records_row.name,
                                      lost_records_row("").name};

// labels: of the export, or of one of several collectors that each get all records. What filters
// and sampling keep back is the export's.
int64_t difference_of(const sum_names& names, const export_entry& entry,
                      const std::string& labels) {
    uint64_t known = metrics_sum(names.sent, labels) + metrics_sum(names.lost, labels);
    if (labels != entry.label)
        for (const char* reason : {",reason=\"filter\"", ",reason=\"sampling\""})
            known += metrics_sum(names.lost, entry.label + reason);
    return static_cast<int64_t>(metrics_sum(names.handed, "") - known);
}

// Calls act with the labels of each sum: where each collector gets all records, it has its own.
template <typename Act>
void for_each_sum(const export_entry& entry, Act act) {
    const uint64_t copies = metrics_sum(export_copies_row.name, entry.label);
    if (copies == 0)
        act(entry.label);
    for (uint64_t copy = 0; copy < copies; ++copy)
        act(entry.label + "," + metric_label("collector", std::to_string(copy)));
}

// What was handed and never sent, nor counted as lost by the export itself.
void count_unflushed(const export_entry& entry, const std::string& labels) {
    constexpr metric_row rows[] = {lost_records_row("reason=\"not_flushed\""),
                                   lost_packets_row("reason=\"not_flushed\"")};
    const int64_t records = difference_of(sum_of_records, entry, labels);
    const int64_t packets = difference_of(sum_of_packets, entry, labels);
    if (records <= 0 || packets < 0)
        return;
    metric_cell* const cells = metrics_register(rows, std::size(rows), labels.c_str());
    metric_add(&cells[0], static_cast<uint64_t>(records));
    metric_add(&cells[1], static_cast<uint64_t>(packets));
}

}  // namespace

export_account::export_account(const export_entry& entry)
    : kept_back_(kept_back_rows, entry.label.c_str()),
      keeps_own_account_(metrics_known(sent_packets_row.name, entry.label)) {
    if (!keeps_own_account_)
        answers_ = counter_block<answer_metric>(answer_rows, entry.label.c_str());
    for (size_t position = 0; position < entry.filters.size(); ++position)
        filters_.emplace_back(filter_rows, label_of_filter(entry, position).c_str());
    if (!metrics_known(export_up_row.name, entry.label))
        counter_block<export_state_metric>(export_state_rows, entry.label.c_str())
            .set(export_state_metric::is_up, 1);
}

record_accounts::record_accounts(const run_configuration& run) : handed_(handed_rows, nullptr) {
    for (const export_entry& entry : run.exports)
        exports_.emplace_back(entry);
}

void count_all_unflushed(const run_configuration& run) {
    for (const export_entry& entry : run.exports)
        for_each_sum(entry,
                     [&entry](const std::string& labels) { count_unflushed(entry, labels); });
}

void say_sum(const run_configuration& run) {
    if (!verbose(0) || run.input_switch == nullptr)
        return;
    const auto inside = sum_up(*run.input_switch);
    metrics_snapshot(
        [](void*, const metric_sample* sample) {
            if (is_worth_a_line(*sample))
                say_value(sample->name, sample->labels, sample->value);
        },
        nullptr);
    if (inside)
        say_inside(*inside);
    else
        verbose_msg(0, "The flow cache is busy: what is in it and in the rings was not counted");
    for (const export_entry& entry : run.exports)
        for_each_sum(entry, [&entry](const std::string& labels) {
            say_difference(labels.c_str(), difference_of(sum_of_packets, entry, labels));
        });
}

}  // namespace kestrel
