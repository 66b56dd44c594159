#include "flow/flow_counters.h"

namespace kestrel {
namespace {

constexpr metric_row capture_rows[] = {
    {capture_packets_name,
     "Packets that the input has received, those that its sampling passed over among them.",
     nullptr, METRIC_COUNTER},
    {"kestrelexp_capture_bytes_total", "Bytes of these packets as they were on the wire.", nullptr,
     METRIC_COUNTER},
};

constexpr const char* dropped_packets_name = "kestrelexp_capture_dropped_packets_total";
constexpr const char* dropped_help =
    "Packets lost before the probe saw them: no room in the capture ring, or by the card.";
constexpr metric_row undelivered_rows[] = {
    {dropped_packets_name, dropped_help, "stage=\"ring\"", METRIC_COUNTER},
    {dropped_packets_name, dropped_help, "stage=\"card\"", METRIC_COUNTER},
    {sampled_out_packets_name, "Packets that the input's own sampling passed over.", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_capture_interface_changes_total",
     "Times that the interface went down or away, or came back.", nullptr, METRIC_COUNTER},
    {unread_packets_name, "Packets in the capture ring that were not read yet.", nullptr,
     METRIC_GAUGE},
};
constexpr metric_row input_state_rows[] = {
    {"kestrelexp_capture_up", "1 while frames can be taken.", nullptr, METRIC_GAUGE},
};

constexpr const char* discarded_help = "Packets that belong to no flow, by what they lack.";
constexpr metric_row parser_rows[] = {
    {discarded_packets_name, discarded_help, "reason=\"not_ip\"", METRIC_COUNTER},
    {discarded_packets_name, discarded_help, "reason=\"truncated\"", METRIC_COUNTER},
    {discarded_packets_name, discarded_help, "reason=\"ip_version\"", METRIC_COUNTER},
};

constexpr const char* removed_flows_name = "kestrelexp_cache_removed_flows_total";
constexpr const char* removed_flows_help = "Flows that left the flow cache, by reason.";
constexpr const char* removed_packets_help = "Packets of the flows that left the flow cache.";
constexpr const char* reason_active = "reason=\"active\"";
constexpr const char* reason_inactive = "reason=\"inactive\"";
constexpr const char* reason_collision = "reason=\"collision\"";
constexpr const char* reason_forced = "reason=\"forced\"";
constexpr const char* reason_other = "reason=\"other\"";  // a plugin's own

constexpr metric_row cache_rows[] = {
    {"kestrelexp_cache_records_total",
     "Packet records that reached the flow cache: packets, or what an input sums up of several.",
     nullptr, METRIC_COUNTER},
    {"kestrelexp_cache_packets_total", "Packets that reached the flow cache.", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_cache_bytes_total", "Bytes of these packets, as flow records count them.", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_cache_flows", "Flows in the flow cache.", nullptr, METRIC_GAUGE},
    {"kestrelexp_cache_slots", "Flows that the flow cache has room for.", nullptr, METRIC_GAUGE},
    {removed_flows_name, removed_flows_help, reason_active, METRIC_COUNTER},
    {removed_flows_name, removed_flows_help, reason_inactive, METRIC_COUNTER},
    {removed_flows_name, removed_flows_help, reason_collision, METRIC_COUNTER},
    {removed_flows_name, removed_flows_help, reason_forced, METRIC_COUNTER},
    {removed_flows_name, removed_flows_help, reason_other, METRIC_COUNTER},
    {removed_packets_name, removed_packets_help, reason_active, METRIC_COUNTER},
    {removed_packets_name, removed_packets_help, reason_inactive, METRIC_COUNTER},
    {removed_packets_name, removed_packets_help, reason_collision, METRIC_COUNTER},
    {removed_packets_name, removed_packets_help, reason_forced, METRIC_COUNTER},
    {removed_packets_name, removed_packets_help, reason_other, METRIC_COUNTER},
};
// The row of a reason; the reasons count from 1, as 0 is no frame at all.
constexpr parser_metric row_of(discard_reason reason) {
    return static_cast<parser_metric>(static_cast<int>(reason) - 1);
}
static_assert(row_of(discard_reason::not_ip) == parser_metric::not_ip &&
              row_of(discard_reason::truncated) == parser_metric::truncated &&
              row_of(discard_reason::ip_version) == parser_metric::ip_version);

}  // namespace

input_counters::input_counters(const char* labels, bool tells_state)
    : capture_(capture_rows, labels),
      parser_(parser_rows, nullptr),
      state_(input_state_rows, labels),
      tells_state_(tells_state) {
    state_.set(input_state_metric::is_up, tells_state ? 1 : 0);
}

void input_counters::expect_counts(const char* labels) {
    undelivered_ = counter_block<undelivered_metric>(undelivered_rows, labels);
}

void input_counters::take(const input_counts& now) {
    undelivered_.set(undelivered_metric::ring_dropped, now.ring_dropped_packets);
    undelivered_.set(undelivered_metric::card_dropped, now.card_dropped_packets);
    undelivered_.set(undelivered_metric::sampled_out, now.sampled_out_packets);
    undelivered_.set(undelivered_metric::interface_changes, now.interface_changes);
    undelivered_.set(undelivered_metric::unread, now.unread_packets);
    state_.set(input_state_metric::is_up, tells_state_ ? now.is_up : 0);
    capture_.add(capture_metric::packets, now.sampled_out_packets - told_.sampled_out_packets);
    capture_.add(capture_metric::bytes, now.sampled_out_bytes - told_.sampled_out_bytes);
    told_ = now;
}

[[gnu::noinline]] void input_counters::add_discarded(flow_key result) const {
    parser_.add(row_of(static_cast<discard_reason>(result)));
}

cache_counters::cache_counters(uint32_t slots) : block_(cache_rows, nullptr) {
    set_slots(slots);
}

uint64_t cache_counters::removed_flows() const {
    uint64_t flows = 0;
    for (uint32_t row = 0; row <= other_removals; ++row)
        flows += block_.value(removal_metric(cache_metric::removed_flows, row));
    return flows;
}

uint64_t cache_counters::collided_flows() const {
    return block_.value(removal_metric(cache_metric::removed_flows, REMOVAL_COLLISION));
}

}  // namespace kestrel
