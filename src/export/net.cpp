// The connection of an exporter to its collector. Runs on the thread that calls the exporter, and
// may block as long as the system does, or until the program is asked to stop. Nothing is ever
// resent.
#include "export/net.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/clock.h"
#include "base/heartbeat.h"
#include "base/log.h"
#include "base/stop.h"
#include "base/wire.h"
#include "kestrelexp/builtin.h"

namespace kestrel {
namespace {

struct free_addresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

union socket_address {
    sockaddr any;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;
};

// The first address of the family. Flow information and scope stay 0.
bool resolve(const char* host, uint16_t port, int family, socket_address* address) {
    addrinfo wanted = {};
    wanted.ai_family = family;
    wanted.ai_socktype = SOCK_STREAM;  // one entry for each address; the type itself is not used
    addrinfo* list = nullptr;
    if (getaddrinfo(host, nullptr, &wanted, &list) != 0)
        return false;
    const std::unique_ptr<addrinfo, free_addresses> owner(list);
    *address = {};
    address->any.sa_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
        address->ipv4.sin_addr = reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr;
        address->ipv4.sin_port = byte_swap(port);
    } else {
        address->ipv6.sin6_addr = reinterpret_cast<const sockaddr_in6*>(list->ai_addr)->sin6_addr;
        address->ipv6.sin6_port = byte_swap(port);
    }
    return true;
}

// A socket above descriptor 0, which whoever calls this may have closed: 0 means failure here.
int open_socket(int family, uint8_t protocol) {
    const int type = protocol == IPPROTO_UDP ? SOCK_DGRAM : SOCK_STREAM;
    int descriptor = socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol);
    if (descriptor == 0) {
        descriptor = fcntl(0, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        (void)close(0);
    }
    if (descriptor > 0 && protocol == IPPROTO_TCP) {
        const int on = 1;
        (void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // only a wish
    }
    return descriptor;
}

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
    const socklen_t size = family == AF_INET ? sizeof address.ipv4 : sizeof address.ipv6;
    if (connect_socket(descriptor, address.any, size))
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
