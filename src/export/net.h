// The collector as an exporter's parameters name it, and what connects to it.
#pragma once

#include <cstdint>

namespace kestrel {

struct collector {
    char* host = nullptr;
    int32_t port = 3001;
    int32_t ip = 46;        // see net_connect in builtin.h
    uint8_t protocol = 17;  // IP protocol number; UDP
};

int net_connect(const collector& to);

// Replaces a connection that broke: up to eight attempts with a minute behind each failed one,
// then the end of the program (status 255). Returns the new descriptor; lost is closed.
int net_reconnect(const collector& to, int lost);

}  // namespace kestrel
