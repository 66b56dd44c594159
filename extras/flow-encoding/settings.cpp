// The parameters of exports of JSON; see flow_encoding.h. While the program starts.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <string_view>

#include "flow_encoding.h"

namespace flow_encoding {
namespace {

constexpr int32_t seed_most = 65'535;

struct style_row {
    std::string_view name;
    field_style style;
};
constexpr style_row styles[] = {{"goflow2", FIELD_STYLE_GOFLOW2}, {"ecs", FIELD_STYLE_ECS}};

bool read_style(const char* name, field_style& style, std::string& fault) {
    for (const style_row& row : styles)
        if (row.name == name) {
            style = row.style;
            return true;
        }
    fault = "style=" + std::string(name) + " is none of goflow2 and ecs";
    return false;
}

bool read_seed(int32_t given, std::optional<uint16_t>& seed, std::string& fault) {
    if (given == json_parameters::no_seed)
        return true;
    if (given < 0 || given > seed_most) {
        fault = "seed is from 0 to " + std::to_string(seed_most);
        return false;
    }
    seed = static_cast<uint16_t>(given);
    return true;
}

// The address as it is written by everybody, or nothing.
std::string plain_address(const char* text) {
    in6_addr address;  // large enough for both
    char plain[INET6_ADDRSTRLEN];
    for (const int family : {AF_INET, AF_INET6})
        if (inet_pton(family, text, &address) == 1)
            return inet_ntop(family, &address, plain, sizeof plain);
    return {};
}

// The address of an interface that others may know; nothing for all others.
std::string public_address(const ifaddrs& entry, int family) {
    char text[INET6_ADDRSTRLEN];
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != family ||
        (entry.ifa_flags & IFF_UP) == 0 || (entry.ifa_flags & IFF_LOOPBACK) != 0)
        return {};
    if (family == AF_INET) {
        const auto& four = *reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
        return inet_ntop(family, &four.sin_addr, text, sizeof text);
    }
    const auto& six = *reinterpret_cast<const sockaddr_in6*>(entry.ifa_addr);
    if (IN6_IS_ADDR_LINKLOCAL(&six.sin6_addr))
        return {};
    return inet_ntop(family, &six.sin6_addr, text, sizeof text);
}

}  // namespace

std::array<config_setting, 4> json_parameters::rows() {
    return {{{"style", static_cast<void*>(&style), CONFIG_STRING},
             {"fields", static_cast<void*>(&fields), CONFIG_STRING},
             {"seed", &seed, CONFIG_INTEGER},
             {"sampler", static_cast<void*>(&sampler), CONFIG_STRING}}};
}

bool read_json_settings(const json_parameters& parameters, json_settings& settings,
                        std::string& fault) {
    if (parameters.style != nullptr && !read_style(parameters.style, settings.style, fault))
        return false;
    if (!read_seed(parameters.seed, settings.seed, fault))
        return false;
    settings.fields = parameters.fields != nullptr ? parameters.fields : "";
    if (parameters.sampler == nullptr) {
        settings.sampler = machine_address();
        return true;
    }
    settings.sampler = plain_address(parameters.sampler);
    if (settings.sampler.empty()) {
        fault = "sampler=" + std::string(parameters.sampler) + " is no IPv4 or IPv6 address";
        return false;
    }
    return true;
}

std::string machine_address() {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0)
        return "127.0.0.1";
    std::string found;
    for (const int family : {AF_INET, AF_INET6})
        for (const ifaddrs* entry = all; entry != nullptr && found.empty(); entry = entry->ifa_next)
            found = public_address(*entry, family);
    freeifaddrs(all);
    return found.empty() ? "127.0.0.1" : found;
}

}  // namespace flow_encoding
