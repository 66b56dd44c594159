// Sockets to collectors; see collector_socket.h. Nothing here blocks but the look-up of a name.
#include "export/collector_socket.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/clock.h"
#include "base/wire.h"

namespace kestrel {
namespace {

struct free_addresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

struct socket_option {
    int level;
    int name;
    int value;
};

// A host that vanishes while nothing is sent is noticed after 14 s.
constexpr socket_option tcp_options[] = {
    {SOL_SOCKET, SO_KEEPALIVE, 1},
    {IPPROTO_TCP, TCP_KEEPIDLE, 5},   // s
    {IPPROTO_TCP, TCP_KEEPINTVL, 3},  // s
    {IPPROTO_TCP, TCP_KEEPCNT, 3},
    // Messages wait in the outlet, where a broken connection costs nothing, and not in the system.
    {IPPROTO_TCP, TCP_NOTSENT_LOWAT, 1 << 17},  // bytes
};

int pending_error(int descriptor) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

// Whether the socket is connected to itself. A port that nobody listens at may be the very one that
// the system gives a socket on this machine, which then takes what it sends, and keeps the port
// from the collector.
bool is_own_peer(int descriptor, const socket_address& peer) {
    socket_address own = {};
    socklen_t size = sizeof own;
    if (getsockname(descriptor, &own.any, &size) != 0 || own.any.sa_family != peer.any.sa_family)
        return false;
    if (own.any.sa_family == AF_INET)
        return own.ipv4.sin_port == peer.ipv4.sin_port &&
               own.ipv4.sin_addr.s_addr == peer.ipv4.sin_addr.s_addr;
    return own.ipv6.sin6_port == peer.ipv6.sin6_port &&
           IN6_ARE_ADDR_EQUAL(&own.ipv6.sin6_addr, &peer.ipv6.sin6_addr);
}

}  // namespace

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

const char* fault_text(int fault) {
    switch (fault) {
        case name_unknown:
            return "its name has no address";
        case has_closed:
            return "it closed the connection";
        case takes_nothing:
            return "it takes nothing";
        default:
            return std::strerror(fault);
    }
}

uint64_t collector_socket::now_ns() {
    return system_uptime_ns();
}

uint32_t collector_socket::random() {
    uint32_t value = 0;
    (void)!getrandom(&value, sizeof value, GRND_NONBLOCK);  // 0 where there is none yet
    return value;
}

int collector_socket::start(const collector& to, int family) {
    socket_address address;
    if (!resolve(to.host, static_cast<uint16_t>(to.port), family, &address))
        return name_unknown;
    socket_ = open_socket(family, to.protocol);
    if (socket_ < 0)
        return errno;
    is_stream_ = to.protocol != IPPROTO_UDP;
    if (to.protocol == IPPROTO_TCP)
        for (const socket_option& row : tcp_options)  // without one an outage is noticed later
            (void)setsockopt(socket_, row.level, row.name, &row.value, sizeof row.value);
    const bool is_begun =
        connect(socket_, &address.any, address.size()) == 0 || errno == EINPROGRESS;
    const int fault = !is_begun ? errno : is_own_peer(socket_, address) ? ECONNREFUSED : no_fault;
    if (fault != no_fault)
        close(true);
    return fault;
}

int collector_socket::connected() {
    pollfd ready = {socket_, POLLOUT, 0};
    return poll(&ready, 1, 0) == 1 ? pending_error(socket_) : EINPROGRESS;
}

int collector_socket::look() {
    constexpr int reads_limit = 16;  // who sends on and on is read on and on, a part at a time
    char nothing[4096];
    for (int n = 0; n < reads_limit; ++n) {
        const ssize_t result = recv(socket_, nothing, sizeof nothing, MSG_DONTWAIT);
        if (result == 0 && is_stream_)
            return has_closed;
        if (result < 0 && errno != EINTR)
            return errno == EAGAIN ? no_fault : errno;
    }
    return no_fault;
}

int64_t collector_socket::send(const void* bytes, uint32_t length) {
    for (;;) {
        const ssize_t result = ::send(socket_, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (result >= 0 || errno != EINTR)
            return result >= 0 ? result : -int64_t{errno};
    }
}

uint64_t collector_socket::unacknowledged() {
    int bytes = 0;
    return ioctl(socket_, SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
}

void collector_socket::close(bool is_abrupt) {
    if (socket_ < 0)
        return;
    const linger at_once = {1, 0};
    if (is_abrupt)
        (void)setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    (void)::close(socket_);  // what it could tell is known
    socket_ = -1;
}

}  // namespace kestrel
