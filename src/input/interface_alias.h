// What somebody has said that a network interface is for: its alias (ip link set DEVICE alias
// TEXT). Asks the kernel over rtnetlink(7); needs no privilege. Waits only while
// somebody else has the kernel change its interfaces. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

struct interface_alias {
    static constexpr size_t size = 256;  // with its NUL, as the kernel has it

    char text[size] = "";  // empty: there is none
};

// Of the interface that has the name just now.
interface_alias look_up_alias(const char* name);

// Reads the kernel's answer, of size bytes.
interface_alias read_alias_answer(const uint8_t* data, size_t size);

}  // namespace kestrel
