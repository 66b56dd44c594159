// Parameters; see settings.h.
#include "settings.h"

#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace af_packet {
namespace {

// Four tags, ten labels, an IPv6 header and a TCP header up to its flags, after the addresses.
constexpr int32_t snap_headers = 136;
// The longest IP packet after an Ethernet header and tags.
constexpr int32_t snap_frames = 65'536 + 64;
constexpr int32_t snap_least = 64;
constexpr int32_t snap_most = 256 * 1024;
constexpr int32_t ring_default_mib = 16;
constexpr int32_t ring_most_mib = 1024 * 1024;
constexpr int32_t sampling_most = 65'535;  // records have 16 bits for it
constexpr int32_t sampling_believable = 1000;
constexpr int32_t group_most = 65'535;
constexpr std::string_view expression_key = "filter=";

struct number {
    const char* name;
    int32_t value;
    int32_t least;
    int32_t most;
};

// The expression is all that follows its key, whatever that is; returns what is in front of it.
std::string take_expression(std::string_view params, std::string& expression) {
    for (size_t at = 0; at < params.size(); at = params.find(',', at) + 1) {
        if (params.substr(at).starts_with(expression_key)) {
            expression = params.substr(at + expression_key.size());
            return std::string(params.substr(0, at));
        }
        if (params.find(',', at) == std::string_view::npos)
            break;
    }
    return std::string(params);
}

bool take_devices(char* text, std::vector<std::string>& devices) {
    char** const names = char_split(text, '#', 0);
    for (char** name = names; *name; ++name) {
        if (std::find(devices.begin(), devices.end(), *name) != devices.end()) {
            verbose_msg(-1, "Device %s is named twice", *name);
            std::free(names);
            return false;
        }
        devices.emplace_back(*name);
    }
    std::free(names);
    if (devices.empty())
        verbose_msg(-1, "Device parameter is mandatory for af-packet input.");
    return !devices.empty();
}

bool are_in_range(const number* numbers, size_t count) {
    for (const number* it = numbers; it != numbers + count; ++it) {
        if (it->value >= it->least && it->value <= it->most)
            continue;
        verbose_msg(-1, "Parameter %s: %i is not between %i and %i", it->name, it->value, it->least,
                    it->most);
        return false;
    }
    return true;
}

}  // namespace

bool read_settings(const char* params, bool needs_frames, settings& wanted) {
    enum place { lanes, fanout, ring, sampling, promiscuous, snap, count };
    number numbers[count] = {
        {"lanes", 1, 1, INPUT_QUEUES_LIMIT},
        {"fanout", -1, -1, group_most},
        {"ring", ring_default_mib, 1, ring_most_mib},
        {"sampling", 0, 0, sampling_most},
        {"promiscuous", 1, 0, 1},
        {"snap", needs_frames ? snap_frames : snap_headers, snap_least, snap_most},
    };
    char* devices = nullptr;
    config_setting table[count + 2] = {{"device", static_cast<void*>(&devices), CONFIG_STRING}};
    for (size_t row = 0; row < count; ++row)
        table[row + 1] = {numbers[row].name, &numbers[row].value, CONFIG_INTEGER};
    std::string items = take_expression(params ? params : "", wanted.expression);
    if (config_set_values(items.data(), table) != 0 || !take_devices(devices, wanted.devices) ||
        !are_in_range(numbers, count))
        return false;
    if (numbers[sampling].value > sampling_believable)
        verbose_msg(-1, "Sampling set to unbelievable value: %i", numbers[sampling].value);
    wanted.lanes = static_cast<uint32_t>(numbers[lanes].value);
    wanted.group = numbers[fanout].value;
    wanted.ring_bytes = static_cast<uint64_t>(numbers[ring].value) << 20;
    wanted.sampling = static_cast<uint32_t>(numbers[sampling].value);
    wanted.is_promiscuous = numbers[promiscuous].value != 0;
    wanted.snap_bytes = static_cast<uint32_t>(numbers[snap].value);
    return true;
}

}  // namespace af_packet
