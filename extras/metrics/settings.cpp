#include "settings.h"

#include <arpa/inet.h>

#include <charconv>
#include <string_view>

#include "kestrelexp/service.h"

namespace metrics {

namespace {

constexpr const char* default_port = "9101";
constexpr const char* default_address = "127.0.0.1";

// A number from 1 to 65535 and nothing else; 0: it is none.
uint16_t port_of(std::string_view text) {
    uint16_t port = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), port);
    return fault == std::errc{} && end == text.data() + text.size() ? port : uint16_t{0};
}

bool set_address(const char* text, in_port_t port, listen_address& where) {
    const std::string digits = std::to_string(ntohs(port));
    where.address = {};
    auto* const four = reinterpret_cast<sockaddr_in*>(&where.address);
    auto* const six = reinterpret_cast<sockaddr_in6*>(&where.address);
    if (inet_pton(AF_INET, text, &four->sin_addr) == 1) {
        four->sin_family = AF_INET;
        four->sin_port = port;
        where.length = sizeof *four;
        where.text = std::string(text) + ":" + digits;
        return true;
    }
    if (inet_pton(AF_INET6, text, &six->sin6_addr) == 1) {
        six->sin6_family = AF_INET6;
        six->sin6_port = port;
        where.length = sizeof *six;
        where.text = "[" + std::string(text) + "]:" + digits;
        return true;
    }
    return false;
}

}  // namespace

bool read_settings(char* params, listen_address& where) {
    char* port = nullptr;
    char* address = nullptr;
    const config_setting settings[] = {
        {"port", static_cast<void*>(&port), CONFIG_STRING},
        {"address", static_cast<void*>(&address), CONFIG_STRING},
        {nullptr, nullptr, 0},
    };
    if (config_set_values(params, settings) != 0)
        return false;
    const char* const port_text = port != nullptr ? port : default_port;
    const char* const address_text = address != nullptr ? address : default_address;
    const uint16_t number = port_of(port_text);
    if (number == 0) {
        verbose_msg(-1, "metrics: port=%s is no port. Choose a number from 1 to 65535", port_text);
        return false;
    }
    if (!set_address(address_text, htons(number), where)) {
        verbose_msg(-1,
                    "metrics: address=%s is no IPv4 or IPv6 address. Name one of this machine in "
                    "digits, such as 127.0.0.1 or ::1",
                    address_text);
        return false;
    }
    return true;
}

}  // namespace metrics
