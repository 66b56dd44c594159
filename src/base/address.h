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

// The first address that getaddrinfo finds for the text; flags are its AI_* flags.
std::optional<ip_address> resolve_address(const char* text, int flags);

}  // namespace kestrel
