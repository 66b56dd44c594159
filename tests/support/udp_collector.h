// A collector on a loopback UDP port, for tests of exporters.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel_test {

class udp_collector {
  public:
    // port 0: any free one. A collector that could not bind has port 0.
    explicit udp_collector(uint16_t port = 0) : socket_(::socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* any = reinterpret_cast<sockaddr*>(&address);
        if (bind(socket_, any, size) == 0 && getsockname(socket_, any, &size) == 0)
            port_ = ntohs(address.sin_port);
    }
    ~udp_collector() { close(socket_); }
    udp_collector(const udp_collector&) = delete;
    udp_collector& operator=(const udp_collector&) = delete;

    uint16_t port() const { return port_; }

    // "host=127.0.0.1,port=N" and what more is given.
    std::string params(const std::string& more = "") const {
        return "host=127.0.0.1,port=" + std::to_string(port_) + more;
    }

    // The next packet, or nothing when none has come. Loopback delivers inside send().
    std::vector<uint8_t> receive(int timeout_ms = 0) {
        std::vector<uint8_t> packet(65536);
        pollfd wait = {socket_, POLLIN, 0};
        const ssize_t size = poll(&wait, 1, timeout_ms) == 1
                                 ? recv(socket_, packet.data(), packet.size(), 0)
                                 : ssize_t{0};
        packet.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return packet;
    }

  private:
    int socket_;
    uint16_t port_ = 0;
};

}  // namespace kestrel_test
