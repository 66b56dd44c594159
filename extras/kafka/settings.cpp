#include "settings.h"

#include <kestrelexp/service.h>

#include <algorithm>
#include <cstring>

namespace kafka {

namespace {

constexpr int32_t not_given = INT32_MIN;
constexpr unsigned kib_exponent = 10;

struct bounded {
    const char* key;
    const char* unit;
    int32_t standard;
    int32_t least;
    int32_t most;
};
constexpr bounded queue_bounds = {"queue", "KiB", 16384, 256, 4194304};
constexpr bounded drain_bounds = {"drain", "s", 10, 0, 3600};

bool set_bounded(const bounded& row, int32_t given, int32_t& value, std::string& fault) {
    value = given == not_given ? row.standard : given;
    if (value >= row.least && value <= row.most)
        return true;
    fault = std::string(row.key) + " is from " + std::to_string(row.least) + " to " +
            std::to_string(row.most) + " " + row.unit;
    return false;
}

template <typename Choice>
struct choice {
    const char* name;
    Choice value;
};
constexpr choice<message_key> keys[] = {
    {"none", message_key::none}, {"exporter", message_key::exporter}, {"flow", message_key::flow}};
constexpr choice<message_format> formats[] = {{"json", message_format::json},
                                              {"protobuf", message_format::protobuf}};

// Without a text the value stays what it is.
template <typename Choice, size_t count>
bool choose(const char* what, const choice<Choice> (&rows)[count], const char* text, Choice& value,
            std::string& fault) {
    if (text == nullptr)
        return true;
    std::string names;
    for (const choice<Choice>& row : rows) {
        if (std::strcmp(row.name, text) == 0) {
            value = row.value;
            return true;
        }
        names += (names.empty() ? "" : ", ") + std::string(row.name);
    }
    fault = std::string("Unknown ") + what + ": " + text + " (there are " + names + ")";
    return false;
}

// Every message names the probe; the rest is JSON's.
bool set_json(const flow_encoding::json_parameters& given, settings& result, std::string& fault) {
    if (result.format != message_format::json &&
        (given.style != nullptr || given.fields != nullptr ||
         given.seed != flow_encoding::json_parameters::no_seed)) {
        fault = "style, fields and seed go with format=json";
        return false;
    }
    return flow_encoding::read_json_settings(given, result.json, fault) &&
           read_sampler_address(result.json.sampler.c_str(), result.sampler);
}

std::string text_of(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

bool read_settings(char* params, settings& result, std::string& fault) {
    char* brokers = nullptr;
    char* topic = nullptr;
    char* format = nullptr;
    char* key = nullptr;
    char* file = nullptr;
    flow_encoding::json_parameters json;
    int32_t queue_kib = not_given;
    int32_t drain_s = not_given;
    const auto of_json = json.rows();
    const config_setting table[] = {
        {"brokers", static_cast<void*>(&brokers), CONFIG_STRING},
        {"topic", static_cast<void*>(&topic), CONFIG_STRING},
        {"format", static_cast<void*>(&format), CONFIG_STRING},
        {"key", static_cast<void*>(&key), CONFIG_STRING},
        {"config", static_cast<void*>(&file), CONFIG_STRING},
        of_json[0],
        of_json[1],
        of_json[2],
        of_json[3],
        {"queue", &queue_kib, CONFIG_INTEGER},
        {"drain", &drain_s, CONFIG_INTEGER},
        {nullptr, nullptr, 0},
    };
    fault = "these parameters cannot be read";
    if (config_set_values(params, table) != 0)
        return false;
    result.brokers = text_of(brokers);
    std::ranges::replace(result.brokers, '#', ',');
    result.topic = topic != nullptr ? topic : "flows";
    result.properties_file = text_of(file);
    if (!choose("format", formats, format, result.format, fault) ||
        !choose("key", keys, key, result.key, fault) || !set_json(json, result, fault) ||
        !set_bounded(queue_bounds, queue_kib, queue_kib, fault) ||
        !set_bounded(drain_bounds, drain_s, drain_s, fault))
        return false;
    result.queue_bytes = static_cast<uint64_t>(queue_kib) << kib_exponent;
    result.drain_s = static_cast<uint32_t>(drain_s);
    return true;
}

}  // namespace kafka
