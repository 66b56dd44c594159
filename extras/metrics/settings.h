// The parameters of the plugin.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

namespace metrics {

struct listen_address {
    sockaddr_storage address;
    socklen_t length;
    std::string text;  // as in a URL: 127.0.0.1:9101, [::1]:9101
};

// False after saying what is wrong.
bool read_settings(char* params, listen_address& where);

}  // namespace metrics
