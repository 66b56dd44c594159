// Groups of collectors; see collector_group.h.
#include "export/collector_group.h"

#include <string_view>

#include "base/counters.h"
#include "base/export_metrics.h"
#include "base/heap.h"
#include "base/log.h"
#include "base/memory.h"
#include "kestrelexp/service.h"
#include "record/flow_identity.h"

namespace kestrel {
namespace {

constexpr size_t most_collectors = 16;

struct sharing_row {
    const char* word;
    sharing how;
};
constexpr sharing_row sharing_rows[] = {
    {"parallel", sharing::parallel},
    {"load-balancing", sharing::load_balancing},
    {"fallback", sharing::fallback},
};

sharing sharing_of(std::string_view word) {
    for (const sharing_row& row : sharing_rows)
        if (word == row.word)
            return row.how;
    die(exit_config, "Unknown group: %s (there are parallel, load-balancing and fallback)",
        std::string(word).c_str());
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::string copy = text;
    const heap_array pieces(char_split(copy.data(), separator, 0));
    std::vector<std::string> found;
    for (char** piece = pieces.get(); *piece != nullptr; ++piece)
        found.emplace_back(*piece);
    return found;
}

// As config_set_values finds it: the key begins the item.
bool has_key(const std::string& item, std::string_view key) {
    return item.starts_with(key) && item.find('=') != std::string::npos;
}

std::string value_of(const std::string& item) {
    return item.substr(item.find('=') + 1);
}

// What of the parameters is about collectors; the rest goes to each of them.
struct collector_items {
    std::string hosts;
    std::string group;
    bool has_group = false;
    bool is_background = false;
    std::string rest;
};

collector_items read_items(const char* params) {
    collector_items found;
    for (const std::string& item : split(params != nullptr ? params : "", ',')) {
        if (has_key(item, "host")) {
            found.hosts = value_of(item);
        } else if (has_key(item, "group")) {
            found.group = value_of(item);
            found.has_group = true;
        } else {
            found.is_background |= has_key(item, "reconnect");
            found.rest += "," + item;
        }
    }
    return found;
}

void check(const collector_items& items, size_t count) {
    if (!items.has_group)
        die(exit_config,
            "host names several collectors: say how they share the flows, with "
            "group=parallel, load-balancing or fallback");
    if (count < 2)
        die(exit_config, "group goes with several collectors, as in host=a#b");
    if (count > most_collectors)
        die(exit_config, "A group has %zu collectors at most", most_collectors);
    if (!items.is_background)
        die(exit_config, "group goes with reconnect=background");
}

}  // namespace

collector_list read_collectors(const char* params) {
    const collector_items items = read_items(params);
    if (!items.has_group && items.hosts.find('#') == std::string::npos)
        return {};
    const std::vector<std::string> hosts = split(items.hosts, '#');
    check(items, hosts.size());
    collector_list list = {sharing_of(items.group), {}};
    for (const std::string& host : hosts)
        list.params.push_back("host=" + host + items.rest);
    return list;
}

void check_alone(const char* name, const char* params) {
    const collector_items items = read_items(params);
    if (items.is_background && (items.has_group || items.hosts.find('#') != std::string::npos))
        die(exit_config, "%s has one collector: give each an export of its own", name);
}

collector_group* open_collectors(const collector_kind& kind, char* params, getter* getters) {
    collector_list list = read_collectors(params);
    auto* const group = make_lifelong<collector_group>(kind, list.how);
    if (list.params.empty()) {
        group->add(kind.init(params, getters));
        return group;
    }
    const std::string label = metrics_label();
    if (list.how == sharing::parallel)
        metric_set(metrics_register(&export_copies_row, 1, label.c_str()), list.params.size());
    for (size_t position = 0; position < list.params.size(); ++position) {
        const metrics_label_scope scope(label + "," +
                                        metric_label("collector", std::to_string(position)));
        group->add(kind.init(list.params[position].data(), getters));
    }
    return group;
}

size_t collector_group::choose(const flow_record& record) const {
    const auto is_up_at = [this](size_t position) { return is_up(position); };
    if (how_ == sharing::load_balancing)
        return choose_by_flow(flow_identity(record), exporters_.size(), is_up_at);
    return how_ == sharing::fallback ? choose_first(exporters_.size(), is_up_at) : 0;
}

uint32_t collector_group::export_record(flow_record* record) const {
    if (how_ != sharing::parallel)
        return kind_.export_record(exporters_[choose(*record)], record);
    uint32_t result = 0;
    for (void* exporter : exporters_)
        result |= kind_.export_record(exporter, record);
    return result;
}

uint32_t collector_group::flush() const {
    uint32_t result = 0;
    for (void* exporter : exporters_)
        result |= kind_.flush(exporter);
    return result;
}

// The workers of several collectors look at the clock themselves.
int32_t collector_group::tend() const {
    return how_ == sharing::alone ? kind_.tend(exporters_.front()) : int32_t{EXPORT_TEND_NEVER};
}

}  // namespace kestrel
