// A collector on a loopback TCP port, for tests of exporters.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace kestrel_test {

// One exporter's connection.
class tcp_connection {
  public:
    explicit tcp_connection(int socket) : socket_(socket) {}
    tcp_connection(tcp_connection&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
    tcp_connection& operator=(tcp_connection&&) = delete;
    ~tcp_connection() {
        if (socket_ >= 0)
            close(socket_);
    }

    explicit operator bool() const { return socket_ >= 0; }

    // Up to limit bytes, or nothing when none came in time or the peer is gone.
    std::vector<uint8_t> receive(size_t limit = 65536, int timeout_ms = 2000) const {
        std::vector<uint8_t> data(limit);
        pollfd wait = {socket_, POLLIN, 0};
        const ssize_t size =
            poll(&wait, 1, timeout_ms) == 1 ? recv(socket_, data.data(), limit, 0) : ssize_t{0};
        data.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return data;
    }

    // Ends the connection so that the peer's next send fails.
    void reset() {
        const linger at_once = {1, 0};
        setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close(std::exchange(socket_, -1));
    }

  private:
    int socket_;
};

class tcp_collector {
  public:
    // port 0: any free one. protocol: 6, or 132 for SCTP.
    explicit tcp_collector(int family = AF_INET, uint16_t port = 0, int protocol = 6)
        : socket_(::socket(family, SOCK_STREAM, protocol)) {
        const int on = 1;
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in6 six = {};
        six.sin6_family = AF_INET6;
        six.sin6_addr = in6addr_loopback;
        six.sin6_port = htons(port);
        sockaddr_in four = {};
        four.sin_family = AF_INET;
        four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        four.sin_port = htons(port);
        const bool is_six = family == AF_INET6;
        auto* any = is_six ? reinterpret_cast<sockaddr*>(&six) : reinterpret_cast<sockaddr*>(&four);
        socklen_t size = is_six ? sizeof six : sizeof four;
        if (bind(socket_, any, size) == 0 && listen(socket_, 5) == 0 &&
            getsockname(socket_, any, &size) == 0)
            port_ = ntohs(is_six ? six.sin6_port : four.sin_port);
    }
    ~tcp_collector() { close(socket_); }
    tcp_collector(const tcp_collector&) = delete;
    tcp_collector& operator=(const tcp_collector&) = delete;

    // 0 when the collector could not listen.
    uint16_t port() const { return port_; }

    // The next connection, or none when it does not come.
    tcp_connection accept(int timeout_ms = 2000) const {
        pollfd wait = {socket_, POLLIN, 0};
        return tcp_connection(poll(&wait, 1, timeout_ms) == 1
                                  ? ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC)
                                  : -1);
    }

  private:
    int socket_;
    uint16_t port_ = 0;
};

}  // namespace kestrel_test
