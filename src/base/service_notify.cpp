// The socket to the service manager; see service_notify.h. Written once at the start, read by any
// thread then.
#include "base/service_notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/clock.h"

namespace kestrel {
namespace {

struct manager {
    int descriptor = -1;
    sockaddr_un address{};
    socklen_t address_size = 0;
    uint64_t watchdog_ns = 0;
};

manager the_manager;

// The value of a variable of the environment, which is gone then; empty: it has none. It stays
// valid, as nothing is freed there.
std::string_view take_variable(const char* name) {
    const char* const value = std::getenv(name);
    (void)unsetenv(name);  // fails for bad names only
    return value != nullptr ? value : "";
}

// The whole text as a number; 0 when it is none.
uint64_t number(std::string_view text) {
    uint64_t value = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), value);
    return fault == std::errc{} && end == text.data() + text.size() ? value : 0;
}

// A path, or a name in the abstract space after an '@'.
bool set_address(manager& to, std::string_view text) {
    if (text.size() < 2 || text.size() > sizeof to.address.sun_path ||
        (text[0] != '/' && text[0] != '@'))
        return false;
    to.address.sun_family = AF_UNIX;
    std::memcpy(to.address.sun_path, text.data(), text.size());
    if (text[0] == '@')
        to.address.sun_path[0] = '\0';
    to.address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
    return true;
}

}  // namespace

void service_notify_start() {
    const std::string_view address = take_variable("NOTIFY_SOCKET");
    const std::string_view watchdog_us = take_variable("WATCHDOG_USEC");
    const std::string_view watched = take_variable("WATCHDOG_PID");
    if (!set_address(the_manager, address))
        return;
    the_manager.descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (watched.empty() || number(watched) == static_cast<uint64_t>(getpid()))
        the_manager.watchdog_ns = number(watchdog_us) * ns_per_us;
}

bool service_notify(const char* assignments) {
    if (the_manager.descriptor < 0)
        return true;
    const int kept = errno;
    const bool has_room =
        sendto(the_manager.descriptor, assignments, std::strlen(assignments),
               MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&the_manager.address),
               the_manager.address_size) >= 0 ||
        errno != EAGAIN;
    errno = kept;
    return has_room;
}

uint64_t service_watchdog_ns() {
    return the_manager.descriptor >= 0 ? the_manager.watchdog_ns : 0;
}

}  // namespace kestrel
