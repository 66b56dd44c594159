#include "summary.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "losses.h"
#include "names.h"
#include "process_readings.h"

namespace metrics {

namespace {

using json = nlohmann::ordered_json;  // in the order of README.md

// A number, or null for what the program does not count.
json number_or_null(const std::optional<uint64_t>& value) {
    return value ? json(*value) : json(nullptr);
}

json reasons(const std::vector<reason_count>& counts, bool of_losses) {
    json list = json::array();
    for (const reason_count& one : counts)
        if (one.is_loss == of_losses)
            list.push_back({{"reason", one.reason}, {"packets", one.packets}});
    return list;
}

json missing_json(const std::vector<missing_part>& missing) {
    json list = json::array();
    for (const missing_part& one : missing)
        list.push_back({{"kind", one.kind}, {"name", one.name}, {"reason", one.reason}});
    return list;
}

// A box of the road: the packets that left it, and those that did not.
json box(const char* name, const std::optional<uint64_t>& packets,
         const std::vector<reason_count>& counts) {
    return {{"name", name},
            {"packets", number_or_null(packets)},
            {"lost", reasons(counts, true)},
            {"left_out", reasons(counts, false)}};
}

json road(const reading_list& list) {
    const std::optional<uint64_t> captured = sum_of(list, names::capture_packets);
    uint64_t kept_out = 0;  // on the way to the cache
    std::vector<reason_count> at_capture = capture_losses(list);
    const std::vector<reason_count> at_parser = parser_losses(list);
    for (const std::vector<reason_count>& counts : {at_capture, at_parser})
        for (const reason_count& one : counts)
            kept_out += one.is_loss ? 0 : one.packets;
    json boxes = json::array({box("capture", captured, at_capture)});
    if (captured)
        boxes.push_back(box("parser", *captured - std::min(*captured, kept_out), at_parser));
    if (const auto packets = sum_of(list, names::cache_packets))
        boxes.push_back(box("cache", packets, {}));
    boxes.push_back(box("records", sum_of(list, names::handed_packets), {}));
    return boxes;
}

struct export_row {
    const char* field;
    std::string_view metric;
};
constexpr export_row export_rows[] = {
    {"records", names::export_records},
    {"packets", names::export_packets},
    {"messages", names::export_messages},
    {"bytes", names::export_bytes},
    {"failed_messages", names::export_failed},
    {"reconnects", names::export_reconnects},
    {"template_restarts", names::export_template_restarts},
};

// The position of an export, which its label ends in.
int position_of(std::string_view name) {
    const std::string_view digits = name.substr(name.rfind('-') + 1);
    int position = 0;
    (void)std::from_chars(digits.data(), digits.data() + digits.size(), position);  // else 0
    return position;
}

// In the order of the command line.
std::vector<std::string> names_of_exports(const reading_list& list) {
    std::vector<std::string> found = values_of_label(list, names::export_packets, "export");
    std::stable_sort(found.begin(), found.end(),
                     [](const std::string& one, const std::string& other) {
                         return position_of(one) < position_of(other);
                     });
    return found;
}

const reading* reading_of(const reading_list& list, std::string_view name, const wanted_label& one,
                          const wanted_label& other) {
    const auto found = std::find_if(list.begin(), list.end(), [&](const reading& each) {
        return each.name == name && each.label_value(one.name) == one.value &&
               each.label_value(other.name) == other.value;
    });
    return found != list.end() ? &*found : nullptr;
}

// Of an export to a cluster; none for all others.
json brokers(const reading_list& list, const wanted_label& of_export) {
    json found = json::array();
    for (const reading& up : list) {
        if (up.name != names::broker_up || up.label_value(of_export.name) != of_export.value)
            continue;
        const std::string name(up.label_value("broker"));
        const reading* const trip =
            reading_of(list, names::broker_round_trip, of_export, {"broker", name});
        found.push_back({{"name", name},
                         {"up", up.value == 1},
                         {"round_trip_seconds", trip != nullptr && trip->value != 0
                                                    ? json(static_cast<double>(trip->value) / 1e6)
                                                    : json(nullptr)}});
    }
    return found;
}

json exports(const reading_list& list, std::string_view self) {
    json found = json::array();
    for (const std::string& name : names_of_exports(list)) {
        const wanted_label label{"export", name};
        // An export with several collectors is up when all of them are.
        const auto up = least_of(list, names::export_up, label);
        json one{{"name", name}, {"up", up ? json(*up == 1) : json(nullptr)}};
        for (const export_row& row : export_rows)
            one[row.field] = number_or_null(sum_of(list, row.metric, label));
        one["last_success"] = number_or_null(greatest_of(list, names::export_last_success, label));
        const std::vector<reason_count> counts = export_losses(list, name);
        one["lost"] = reasons(counts, true);
        one["left_out"] = reasons(counts, false);
        one["brokers"] = brokers(list, label);
        one["is_this"] = name == self;
        found.push_back(std::move(one));
    }
    return found;
}

json removed(const reading_list& list) {
    json found = json::array();
    for (const std::string& reason : values_of_label(list, names::removed_flows, "reason")) {
        const wanted_label label{"reason", reason};
        found.push_back({{"reason", reason},
                         {"flows", number_or_null(sum_of(list, names::removed_flows, label))},
                         {"packets", number_or_null(sum_of(list, names::removed_packets, label))}});
    }
    return found;
}

json rings(const reading_list& list) {
    json found = json::array();
    for (const std::string& name : values_of_label(list, names::ring_slots, "ring")) {
        const wanted_label label{"ring", name};
        const auto waited = sum_of(list, names::ring_wait_time, label);
        found.push_back(
            {{"name", name},
             {"slots", number_or_null(sum_of(list, names::ring_slots, label))},
             {"used", number_or_null(sum_of(list, names::ring_used, label))},
             {"waits", number_or_null(sum_of(list, names::ring_waits, label))},
             {"wait_seconds", waited ? json(static_cast<double>(*waited) / 1e6) : json(nullptr)}});
    }
    return found;
}

std::string address_text(const hitter_key& key) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (key.high == 0 && key.low >> 32 == 0xFFFF) {
        const in_addr address{htonl(static_cast<uint32_t>(key.low))};
        inet_ntop(AF_INET, &address, text.data(), text.size());
        return text.data();
    }
    in6_addr address;
    for (size_t n = 0; n < 8; ++n) {
        address.s6_addr[n] = static_cast<uint8_t>(key.high >> (56 - 8 * n));
        address.s6_addr[n + 8] = static_cast<uint8_t>(key.low >> (56 - 8 * n));
    }
    inet_ntop(AF_INET6, &address, text.data(), text.size());
    return text.data();
}

template <typename Describe>
json top_json(const top_list& list, const Describe& describe) {
    json entries = json::array();
    for (const hitter& one : list.entries) {
        json entry = json::object();
        describe(one.key, entry);
        entry["bytes"] = one.weight;
        entries.push_back(std::move(entry));
    }
    return {{"error_bytes", list.error}, {"entries", std::move(entries)}};
}

json top(const top_of_minute& minute) {
    const auto talker = [](const hitter_key& key, json& entry) {
        entry["address"] = address_text(key);
    };
    const auto port = [](const hitter_key& key, json& entry) {
        entry["protocol"] = key.high;
        entry["port"] = key.low;
    };
    const auto protocol = [](const hitter_key& key, json& entry) { entry["protocol"] = key.low; };
    return {{"seconds", minute.seconds},
            {"records", minute.totals.records},
            {"packets", minute.totals.packets},
            {"bytes", minute.totals.bytes},
            {"talkers", top_json(minute.talkers, talker)},
            {"ports", top_json(minute.ports, port)},
            {"protocols", top_json(minute.protocols, protocol)}};
}

// A thousandth of a packet a second is nothing that a chart shows.
double rounded(double value) {
    return std::round(value * 1000) / 1000;
}

// Columns, as charts want them.
json past(const history& samples, double since) {
    std::array<json, 6> columns;
    columns.fill(json::array());
    for (const history_sample& one : samples.samples()) {
        if (rounded(one.time) <= since)
            continue;
        columns[0].push_back(rounded(one.time));
        columns[1].push_back(rounded(one.packets_per_second));
        columns[2].push_back(rounded(one.bits_per_second));
        columns[3].push_back(rounded(one.flows_per_second));
        columns[4].push_back(rounded(one.lost_packets_per_second));
        columns[5].push_back(one.cache_flows);
    }
    return {{"time", columns[0]},  {"packets", columns[1]}, {"bits", columns[2]},
            {"flows", columns[3]}, {"lost", columns[4]},    {"cache_flows", columns[5]}};
}

std::string text_of(const json& value) {
    // Labels come from plugins and may hold any bytes.
    return value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string version_of(const reading_list& list) {
    const std::vector<std::string> found = values_of_label(list, names::build_info, "version");
    return found.empty() ? "" : found.front();
}

}  // namespace

std::string summary_json(const reading_list& list, sampler& source,
                         const summary_request& request) {
    const std::vector<missing_part> missing = missing_parts(list);
    json all{
        {"version", version_of(list)},
        {"time", request.now},
        {"start_time", process_start_time().value_or(request.now)},
        {"ready", missing.empty()},
        {"not_ready", missing_json(missing)},
        {"totals",
         {{"packets", number_or_null(sum_of(list, names::capture_packets))},
          {"bytes", number_or_null(sum_of(list, names::capture_bytes))},
          {"flows", number_or_null(sum_of(list, names::handed_records))},
          {"lost_packets", all_lost_packets(list)}}},
        {"cache",
         {{"flows", number_or_null(sum_of(list, names::cache_flows))},
          {"slots", number_or_null(sum_of(list, names::cache_slots))}}},
        {"road", road(list)},
        {"exports", exports(list, request.self)},
        {"removed", removed(list)},
        {"rings", rings(list)},
    };
    source.look([&](const history& samples, const top_of_minute& minute) {
        all["top"] = top(minute);
        all["history"] = past(samples, request.since);
    });
    return text_of(all);
}

std::string readiness_json(const std::vector<missing_part>& missing) {
    return text_of({{"ready", missing.empty()}, {"not_ready", missing_json(missing)}});
}

}  // namespace metrics
