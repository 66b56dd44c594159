// Addresses from text, in the form that flow records hold them. Blocks while a name is looked up;
// keeps nothing.
#pragma once

#include <cstdint>
#include <optional>

namespace kestrel {

struct ip_address {
    int family;         // AF_INET, AF_INET6, or another one that a name stands for
    uint32_t words[4];  // host order, least significant first; IPv4 is word 0 alone
};

// The first address that the system finds for a name or a number, by its own defaults: a name gets
// addresses of the families that this host has.
std::optional<ip_address> resolve_address(const char* text);

// The address that the text is as a number, however it is written; no name is looked up.
std::optional<ip_address> numeric_address(const char* text);

}  // namespace kestrel
