// The address by which readers of flows tell this probe from others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kafka {

struct sampler_address {
    uint8_t bytes[16] = {};
    size_t length = 0;  // 4 or 16; 0: none
    std::string text;   // in digits
};

// Reads an IPv4 or IPv6 address in digits. Returns whether it is one.
bool read_sampler_address(const char* text, sampler_address& address);

}  // namespace kafka
