#include "statistics.h"

#include <nlohmann/json.hpp>

namespace kafka {

namespace {

using nlohmann::json;

constexpr metric_row queue_rows[] = {
    {"kestrelexp_kafka_queued_messages",
     "Messages that librdkafka has and no broker has acknowledged.", nullptr, METRIC_GAUGE},
    {"kestrelexp_kafka_queued_bytes", "Bytes of these messages.", nullptr, METRIC_GAUGE},
};

enum broker_cell { is_broker_up, round_trip, first_counter };
constexpr metric_row broker_rows[] = {
    {"kestrelexp_kafka_broker_up", "1 while there is a connection to the broker, else 0.", nullptr,
     METRIC_GAUGE},
    {"kestrelexp_kafka_broker_round_trip_microseconds",
     "Time from a request to its answer, mean of the last second with one.", nullptr, METRIC_GAUGE},
    {"kestrelexp_kafka_broker_failed_requests_total", "Requests that could not be sent.", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_kafka_broker_retried_requests_total", "Requests that were sent once more.",
     nullptr, METRIC_COUNTER},
    {"kestrelexp_kafka_broker_late_requests_total", "Requests that were not answered in time.",
     nullptr, METRIC_COUNTER},
};
// librdkafka's names of the counters.
constexpr const char* counter_names[] = {"txerrs", "txretries", "req_timeouts"};
static_assert(std::size(broker_rows) == first_counter + std::size(counter_names));

// More than any cluster of the field has: what a broken one might tell takes no memory without end.
constexpr size_t brokers_limit = 256;

const json* member(const json& object, const char* name) {
    if (!object.is_object())
        return nullptr;
    const auto found = object.find(name);
    return found != object.end() ? &*found : nullptr;
}

int64_t number_of(const json& object, const char* name, int64_t otherwise) {
    const json* const value = member(object, name);
    return value != nullptr && value->is_number_integer() ? value->get<int64_t>() : otherwise;
}

uint64_t count_of(const json& object, const char* name) {
    const int64_t value = number_of(object, name, 0);
    return value > 0 ? static_cast<uint64_t>(value) : 0;
}

bool is_connected(const json& broker) {
    const json* const state = member(broker, "state");
    return state != nullptr && state->is_string() && state->get_ref<const std::string&>() == "UP";
}

}  // namespace

statistics::statistics()
    : labels_(metrics_label()),
      queue_(metrics_register(queue_rows, std::size(queue_rows), labels_.c_str())) {}

statistics::broker* statistics::find_broker(int64_t id) {
    // Without a number: one of brokers=, whose own number is not known yet, or a role.
    if (id < 0)
        return nullptr;
    const auto found = brokers_.find(id);
    if (found != brokers_.end())
        return &found->second;
    if (brokers_.size() >= brokers_limit)
        return nullptr;
    const std::string labels =
        labels_ + (labels_.empty() ? "" : ",") + "broker=\"" + std::to_string(id) + "\"";
    metric_cell* const cells =
        metrics_register(broker_rows, std::size(broker_rows), labels.c_str());
    return &brokers_.emplace(id, broker{cells, {}}).first->second;
}

bool statistics::take(std::string_view text) {
    const json all = json::parse(text, nullptr, false);
    if (all.is_discarded())
        return false;
    metric_set(&queue_[0], count_of(all, "msg_cnt"));
    metric_set(&queue_[1], count_of(all, "msg_size"));
    const json* const list = member(all, "brokers");
    if (list == nullptr || !list->is_object())
        return false;
    bool is_any_up = false;
    for (const json& one : *list) {
        const bool is_one_up = is_connected(one);
        is_any_up |= is_one_up;
        broker* const known = find_broker(number_of(one, "nodeid", -1));
        if (known == nullptr)
            continue;
        metric_set(&known->cells[is_broker_up], is_one_up ? 1 : 0);
        const json* const trip = member(one, "rtt");
        if (trip != nullptr && count_of(*trip, "cnt") > 0)
            metric_set(&known->cells[round_trip], count_of(*trip, "avg"));
        for (size_t n = 0; n < std::size(counter_names); ++n) {
            const uint64_t now = count_of(one, counter_names[n]);
            if (now > known->counted[n])
                metric_add(&known->cells[first_counter + n], now - known->counted[n]);
            known->counted[n] = now;
        }
    }
    return is_any_up;
}

void statistics::restart() {
    for (auto& [id, one] : brokers_)
        for (uint64_t& counted : one.counted)
            counted = 0;
}

}  // namespace kafka
