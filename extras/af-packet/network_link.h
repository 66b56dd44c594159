// A network interface as the kernel has it, by one question over rtnetlink(7). Needs no privilege,
// never waits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace af_packet {

constexpr size_t alias_size = 256;  // with its NUL, as the kernel has it

struct link_sight {
    char alias[alias_size] = "";  // what somebody has said that it is for
    int index = 0;                // 0: no interface has the name
    bool is_up = false;
    uint16_t hardware = 0;  // ARPHRD_...
    uint32_t mtu = 0;       // bytes
    uint64_t card_lost =
        0;  // packets, since the interface exists: missed, and no room in its queue
};

// What stands under the name just now; nothing when the kernel could not be asked.
std::optional<link_sight> look_at_link(const char* name);

// Reads the kernel's answer, of size bytes. Nothing when it is none.
std::optional<link_sight> read_link_answer(const uint8_t* data, size_t size);

}  // namespace af_packet
