#include "sampler_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>

namespace kafka {

namespace {

// Whether others can know the machine by it. Stores its text.
bool is_of_the_machine(const ifaddrs& entry, int family, std::string& text) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != family ||
        (entry.ifa_flags & IFF_LOOPBACK) != 0)
        return false;
    const void* bytes = &reinterpret_cast<const sockaddr_in*>(entry.ifa_addr)->sin_addr;
    if (family == AF_INET6) {
        const in6_addr& six = reinterpret_cast<const sockaddr_in6*>(entry.ifa_addr)->sin6_addr;
        if (IN6_IS_ADDR_LINKLOCAL(&six) || IN6_IS_ADDR_LOOPBACK(&six))
            return false;
        bytes = &six;
    }
    char place[INET6_ADDRSTRLEN];
    text = inet_ntop(family, bytes, place, sizeof place);
    return true;
}

}  // namespace

bool read_sampler_address(const char* text, sampler_address& address) {
    for (const int family : {AF_INET, AF_INET6})
        if (inet_pton(family, text, address.bytes) == 1) {
            address.length = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
            address.text = text;
            return true;
        }
    return false;
}

std::string machine_address() {
    std::string found = "127.0.0.1";
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return found;
    bool is_found = false;
    for (const int family : {AF_INET, AF_INET6})
        for (const ifaddrs* one = list; one != nullptr && !is_found; one = one->ifa_next)
            is_found = is_of_the_machine(*one, family, found);
    freeifaddrs(list);
    return found;
}

}  // namespace kafka
