// The connection of an exporter to its collector. Runs on the thread that calls the exporter, and
// may block as long as the system does, or until the program is asked to stop. Nothing is ever
// resent.
#include "export/net.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "base/clock.h"
#include "base/heartbeat.h"
#include "base/log.h"
#include "base/stop.h"
#include "export/collector_socket.h"
#include "kestrelexp/builtin.h"

namespace kestrel {
namespace {

// Waits for a connect under way as long as the system tries. When the program is to stop, a
// collector that is there has answered within a second.
bool wait_for_connect(int descriptor) {
    constexpr int look_ms = 100;
    constexpr int last_look = 10;
    pollfd wait = {descriptor, POLLOUT, 0};
    int result = 0;
    for (int look = 0; result == 0 && !(stop_requested() && look >= last_look); ++look) {
        result = poll(&wait, 1, look_ms);
        if (result < 0 && errno == EINTR)
            result = 0;  // a signal does not stop a connect, it only stops the wait for it
    }
    int error = 0;
    socklen_t size = sizeof error;
    return result == 1 && getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
           error == 0;
}

// Connects a socket that does not block, and makes it one that does.
bool connect_socket(int descriptor, const sockaddr& address, socklen_t size) {
    if (connect(descriptor, &address, size) != 0 &&
        !((errno == EINPROGRESS || errno == EINTR) && wait_for_connect(descriptor)))
        return false;
    const int flags = fcntl(descriptor, F_GETFL);
    return flags >= 0 && fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

int connect_family(const char* host, uint16_t port, uint8_t protocol, int family) {
    socket_address address;
    if (!resolve(host, port, family, &address))
        return 0;
    const int descriptor = open_socket(family, protocol);
    if (descriptor < 0)
        return descriptor;
    if (connect_socket(descriptor, address.any, address.size()))
        return descriptor;
    (void)close(descriptor);  // nothing was sent that could be lost
    return 0;
}

constexpr int reconnect_attempts = 8;
constexpr uint64_t reconnect_pause_ns = 60 * ns_per_second;

}  // namespace

int net_connect(const collector& to) {
    return ::net_connect(to.host, static_cast<uint16_t>(to.port), to.protocol,
                         static_cast<uint32_t>(to.ip));
}

int net_reconnect(const collector& to, int lost) {
    const known_wait wait;
    (void)close(lost);  // its send failed: what is lost is lost
    for (int attempt = 0; attempt < reconnect_attempts; ++attempt) {
        const bool is_last = stop_requested();
        const int descriptor = net_connect(to);
        if (descriptor > 0)
            return descriptor;
        verbose_msg(-1, "Can't reconnect to collector");
        if (is_last)
            return 0;
        sleep_unless_stopped(reconnect_pause_ns);
    }
    if (stop_requested())
        return 0;
    die(exit_config, "Reconnect to collector failed, exiting");
}

bool net_wait_for_room(int socket, int longest_ms) {
    const known_wait wait;
    const uint64_t end_ns = system_uptime_ns() + static_cast<uint64_t>(longest_ms) * ns_per_ms;
    pollfd room = {socket, POLLOUT, 0};
    for (;;) {
        const uint64_t now_ns = system_uptime_ns();
        const auto left_ms = now_ns < end_ns ? static_cast<int>((end_ns - now_ns) / ns_per_ms) : 0;
        const int result = poll(&room, 1, left_ms);
        if (result >= 0 || errno != EINTR)  // a signal does not shorten the wait
            return result != 0;
    }
}

}  // namespace kestrel

using namespace kestrel;

int net_connect(const char* host, uint16_t port, uint8_t protocol, uint32_t ip) {
    const known_wait wait;
    if (ip == 46 || ip == 64) {
        const int first = net_connect(host, port, protocol, ip / 10);
        return first > 0 ? first : net_connect(host, port, protocol, ip % 10);
    }
    if (ip == 4)
        return connect_family(host, port, protocol, AF_INET);
    if (ip == 6)
        return connect_family(host, port, protocol, AF_INET6);
    return 0;
}

int64_t net_send(int socket, const void* buffer, uint32_t length, int flags) {
    const known_wait wait;  // for a collector that does not read
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    for (uint32_t sent = 0; sent < length;) {
        const ssize_t result = send(socket, bytes + sent, length - sent, flags);
        if (result >= 0)
            sent += static_cast<uint32_t>(result);
        else if (errno != EINTR)
            return result;
    }
    return length;
}
