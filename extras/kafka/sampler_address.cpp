#include "sampler_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace kafka {

bool read_sampler_address(const char* text, sampler_address& address) {
    for (const int family : {AF_INET, AF_INET6})
        if (inet_pton(family, text, address.bytes) == 1) {
            address.length = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
            address.text = text;
            return true;
        }
    return false;
}

}  // namespace kafka
