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

// See net_connect in builtin.h.
int net_connect(const collector& to);

// Replaces a connection that broke: up to eight attempts with a minute after each failed one, then
// the end of the program (status 255). A stop request ends a pause; one more attempt follows, or
// none after the eighth. Returns the new descriptor, 0 when the stop left none; lost is closed.
int net_reconnect(const collector& to, int lost);

// Waits until the socket takes bytes, at most for so long. Returns whether it does, or has failed.
bool net_wait_for_room(int socket, int longest_ms);

}  // namespace kestrel
