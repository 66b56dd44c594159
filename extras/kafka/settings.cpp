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

struct key_name {
    const char* name;
    message_key key;
};
constexpr key_name key_names[] = {
    {"none", message_key::none}, {"exporter", message_key::exporter}, {"flow", message_key::flow}};

bool set_key(const char* text, message_key& key, std::string& fault) {
    if (text == nullptr)
        return true;
    const auto* const found = std::ranges::find_if(
        key_names, [&](const key_name& row) { return std::strcmp(row.name, text) == 0; });
    if (found == std::end(key_names)) {
        fault = std::string("Unknown key: ") + text + " (there are none, exporter, flow)";
        return false;
    }
    key = found->key;
    return true;
}

bool check_format(const char* text, std::string& fault) {
    if (text == nullptr || std::strcmp(text, "protobuf") == 0)
        return true;
    fault = std::string("Unknown format: ") + text + " (there is protobuf)";
    return false;
}

bool set_sampler(const char* text, sampler_address& address, std::string& fault) {
    if (read_sampler_address(text, address))
        return true;
    fault = std::string("sampler=") + text + " is no IPv4 or IPv6 address";
    return false;
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
    char* sampler = nullptr;
    int32_t queue_kib = not_given;
    int32_t drain_s = not_given;
    const config_setting table[] = {
        {"brokers", static_cast<void*>(&brokers), CONFIG_STRING},
        {"topic", static_cast<void*>(&topic), CONFIG_STRING},
        {"format", static_cast<void*>(&format), CONFIG_STRING},
        {"key", static_cast<void*>(&key), CONFIG_STRING},
        {"config", static_cast<void*>(&file), CONFIG_STRING},
        {"sampler", static_cast<void*>(&sampler), CONFIG_STRING},
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
    const std::string address = sampler != nullptr ? sampler : machine_address();
    if (!check_format(format, fault) || !set_key(key, result.key, fault) ||
        !set_sampler(address.c_str(), result.sampler, fault) ||
        !set_bounded(queue_bounds, queue_kib, queue_kib, fault) ||
        !set_bounded(drain_bounds, drain_s, drain_s, fault))
        return false;
    result.queue_bytes = static_cast<uint64_t>(queue_kib) << kib_exponent;
    result.drain_s = static_cast<uint32_t>(drain_s);
    return true;
}

}  // namespace kafka
