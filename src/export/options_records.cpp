// A round of options records: its first message has the templates, the rate and the statistics, and
// the interfaces follow from there on; see options_records.h.
#include "export/options_records.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "base/export_metrics.h"
#include "base/log.h"
#include "export/options_statistics.h"

namespace kestrel {
namespace {

constexpr int32_t longest_refresh_s = 86'400;
// Changes are looked for so often.
constexpr uint64_t look_ns = ns_per_second;

// The rate that flow records show of a base rate, in their 16 bits.
uint16_t shown_sampling(input_sampling input, uint32_t export_rate) {
    const auto of_input = static_cast<uint16_t>(input.rate);
    if (export_rate == 0)
        return of_input;
    return static_cast<uint16_t>((of_input != 0 ? of_input : 1U) * export_rate);
}

uint32_t effective_rate(input_sampling input, uint32_t export_rate) {
    const uint64_t product = uint64_t{std::max(input.rate, 1U)} * std::max(export_rate, 1U);
    return static_cast<uint32_t>(std::min<uint64_t>(product, UINT32_MAX));
}

// One interface that stands for all of them.
observed_interface joined(const std::vector<observed_interface>& interfaces) {
    observed_interface all;
    for (const observed_interface& each : interfaces) {
        all.name += (all.name.empty() ? "" : ",") + each.name;
        if (!each.description.empty())
            all.description += (all.description.empty() ? "" : ",") + each.description;
    }
    return all;
}

constexpr metric_row own_rows[] = {sent_messages_row, sent_bytes_row, failed_messages_row};

}  // namespace

bool are_options_wanted(const options_settings& settings) {
    const bool is_wanted = settings.refresh_s != options_settings::not_given;
    if (settings.sampling_elements != nullptr) {
        if (!is_wanted)
            die(exit_config, "sampling-elements goes with options-refresh-time");
        if (std::strcmp(settings.sampling_elements, "psamp") != 0)
            die(exit_config, "Unknown sampling-elements: %s (there is psamp)",
                settings.sampling_elements);
    }
    if (is_wanted && (settings.refresh_s < 1 || settings.refresh_s > longest_refresh_s))
        die(exit_config, "options-refresh-time is from 1 to %d", longest_refresh_s);
    return is_wanted;
}

std::vector<observed_interface> as_exported(const std::vector<observed_interface>& observed,
                                            const export_place& place) {
    const int32_t given[] = {place.input_interface, place.output_interface};
    if ((given[0] < 0 && given[1] < 0) || observed.empty())
        return observed;
    std::vector<observed_interface> list;
    const auto add = [&list](const observed_interface& next) {
        if (std::ranges::find(list, next.number, &observed_interface::number) == list.end())
            list.push_back(next);
    };
    observed_interface all = joined(observed);
    for (const int32_t number : given) {
        all.number = static_cast<uint32_t>(number);
        if (number >= 0)
            add(all);
    }
    if (given[0] >= 0 && given[1] >= 0)
        return list;
    // The other direction has the input's own numbers; 0 is no interface there.
    for (const observed_interface& each : observed)
        if (each.number != 0)
            add(each);
    return list;
}

options_records::options_records(const options_settings& settings, options_protocol protocol,
                                 uint32_t source_id)
    : protocol_(protocol),
      sampling_kind_(settings.sampling_elements != nullptr ? options_kind::sampling_psamp
                                                           : options_kind::sampling),
      source_id_(source_id),
      place_(this_export()),
      label_(metrics_label()),
      is_random_(observed_sampling().is_random && observed_sampling().rate > 1),
      counters_(own_rows, metrics_label()),
      schedule_(static_cast<uint64_t>(settings.refresh_s) * ns_per_second),
      last_sampling_(shown_sampling(observed_sampling(), place_.sampling_rate)),
      rate_(effective_rate(observed_sampling(), place_.sampling_rate)) {
    observation_want_interfaces();
}

// Where frames are parsed here a rate in records is another one only because their 16 bits do not
// hold what an export before this one made of it.
void options_records::note_sampling(uint16_t sampling) {
    last_sampling_ = sampling;
    const input_sampling input = observed_sampling();
    if (!input.is_in_records)
        return;
    const bool is_base = sampling == shown_sampling(input, place_.sampling_rate);
    rate_.store(
        is_base ? effective_rate(input, place_.sampling_rate) : std::max<uint32_t>(sampling, 1),
        std::memory_order_relaxed);
}

bool options_records::is_due(uint64_t now_ns) {
    if (rate_.load(std::memory_order_relaxed) != told_rate_ ||
        interfaces_version() != told_version_)
        schedule_.note_change();
    return schedule_.is_due(now_ns);
}

uint64_t options_records::next_look_ns(uint64_t now_ns) const {
    return std::min(schedule_.next_ns(), now_ns + look_ns);
}

void options_records::begin_round(uint64_t now_ns) {
    schedule_.begin_round(now_ns);
    told_rate_ = rate_.load(std::memory_order_relaxed);
    told_version_ = interfaces_version();
    told_interfaces_ = as_exported(observed_interfaces(), place_);
    next_interface_ = 0;
    is_head_told_ = false;
}

void options_records::write_head(wire_writer& out, message& made) const {
    for (const options_kind kind : {sampling_kind_, options_kind::interfaces, options_kind::sent,
                                    options_kind::observed, options_kind::unsent}) {
        write_options_template(out, protocol_, kind);
        ++made.templates;
    }
    const auto add = [&](options_kind kind, uint32_t scope, std::span<const uint64_t> values) {
        write_options_record(out, protocol_, kind,
                             protocol_ == options_protocol::ipfix ? scope : source_id_, values);
        ++made.records;
    };
    constexpr uint64_t systematic = 1, random = 2;
    const bool is_psamp = sampling_kind_ == options_kind::sampling_psamp;
    const uint64_t plain[] = {told_rate_, is_random_ ? random : systematic};
    const uint64_t psamp[] = {1, told_rate_ - 1};  // one packet, then a gap of so many
    add(sampling_kind_, source_id_, is_psamp ? psamp : plain);
    const options_statistics statistics = read_statistics(label_);
    add(options_kind::sent, source_id_, statistics.sent);
    add(options_kind::observed, source_id_, statistics.observed);
    add(options_kind::unsent, place_.position, statistics.unsent);
}

void options_records::write_interfaces(wire_writer& out, std::span<uint8_t> sets, message& made) {
    constexpr uint32_t header_and_padding = 4 + 3;
    std::optional<size_t> begin;
    for (; next_interface_ < told_interfaces_.size(); ++next_interface_) {
        const observed_interface& each = told_interfaces_[next_interface_];
        const uint32_t length = interface_record_size(protocol_, each.name, each.description);
        if (out.size() + header_and_padding + length > sets_size)
            break;
        if (!begin)
            begin = begin_options_set(out, options_kind::interfaces);
        write_interface_record(out, protocol_, source_id_, each.number, each.name,
                               each.description);
        ++made.records;
    }
    if (begin)
        end_options_set(out, sets, *begin);
}

options_records::message options_records::next(uint64_t now_ns, std::span<uint8_t> sets) {
    message made = {};
    if (!is_due(now_ns))
        return made;
    if (schedule_.begins_round())
        begin_round(now_ns);
    wire_writer out(sets.first(sets_size));
    if (!std::exchange(is_head_told_, true))
        write_head(out, made);
    write_interfaces(out, sets, made);
    made.length = static_cast<uint32_t>(out.size());
    schedule_.note_message(now_ns, next_interface_ == told_interfaces_.size());
    return made;
}

void options_records::count(uint32_t length, bool is_sent) const {
    counters_.add(is_sent ? own_metric::messages : own_metric::failures);
    counters_.add(own_metric::bytes, is_sent ? length : 0);
}

}  // namespace kestrel
