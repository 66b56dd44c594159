#include "base/address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>

#include "base/wire.h"

namespace kestrel {
namespace {

struct free_addresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

ip_address from_ipv4(const in_addr& wire) {
    return {AF_INET, {ntohl(wire.s_addr), 0, 0, 0}};
}

ip_address from_ipv6(const in6_addr& wire) {
    const uint8_t* const bytes = wire.s6_addr;
    return {AF_INET6,
            {load_be32(bytes + 12), load_be32(bytes + 8), load_be32(bytes + 4), load_be32(bytes)}};
}

ip_address from_socket_address(const sockaddr& address) {
    switch (address.sa_family) {
        case AF_INET:
            return from_ipv4(reinterpret_cast<const sockaddr_in&>(address).sin_addr);
        case AF_INET6:
            return from_ipv6(reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
        default:
            return {address.sa_family, {}};
    }
}

// No hints are the system's defaults, which differ from hints without a flag.
std::optional<ip_address> find_address(const char* text, const addrinfo* hints) {
    // Plain numbers, which are most of what comes, need nothing of the resolver's machinery.
    in_addr ipv4;
    if (inet_pton(AF_INET, text, &ipv4) == 1)
        return from_ipv4(ipv4);
    in6_addr ipv6;
    if (inet_pton(AF_INET6, text, &ipv6) == 1)
        return from_ipv6(ipv6);

    addrinfo* found = nullptr;
    if (getaddrinfo(text, nullptr, hints, &found) != 0)
        return std::nullopt;
    const std::unique_ptr<addrinfo, free_addresses> list(found);
    return from_socket_address(*list->ai_addr);
}

}  // namespace

std::optional<ip_address> resolve_address(const char* text) {
    return find_address(text, nullptr);
}

std::optional<ip_address> numeric_address(const char* text) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    return find_address(text, &hints);
}

}  // namespace kestrel
