// Network interfaces as the kernel has them: what stands under a name, and the changes that it
// announces (rtnetlink(7)). Needs no privilege, never waits. One thread at a time.
#pragma once

#include <net/if.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace kestrel {

struct link_sight {
    int index = 0;  // 0: no interface has the name
    bool is_up = false;
    bool is_loopback = false;
    uint16_t hardware = 0;  // ARPHRD_...
};

// What stands under the name just now; nothing when the kernel could not be asked.
std::optional<link_sight> look_at_link(const char* name);

struct link_event {
    int index = 0;
    bool is_removed = false;  // from this namespace
    bool is_up = false;
    char name[IF_NAMESIZE] = "";  // empty: not told
};

// Reads one message of the kernel's at data, of at most size bytes. Returns its length with its
// padding, at most size; 0 when it has no header or ends too early. event stays as it is unless the
// message is about an interface.
size_t read_link_message(const uint8_t* data, size_t size, link_event& event);

// The kernel's announcements since open(). When they cannot be had, or some were lost because
// nobody read them in time, there are none: looks have to do.
class link_events {
  public:
    // Returns whether there will be any.
    bool open();
    void close();

    // Readable when there is one; -1: never.
    int descriptor() const { return descriptor_; }

    // Takes the next one, oldest first; false: there is none now.
    bool next(link_event& event);

  private:
    bool receive();

    int descriptor_ = -1;
    size_t used_ = 0;
    size_t filled_ = 0;
    alignas(8) uint8_t buffer_[16384];
};

}  // namespace kestrel
