// One socket to a collector that never blocks, as a connection in the background uses it; and how
// a collector's name becomes an address and a socket, for all that connect.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "export/net.h"

namespace kestrel {

union socket_address {
    sockaddr any;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;

    socklen_t size() const { return any.sa_family == AF_INET ? sizeof ipv4 : sizeof ipv6; }
};

// The first address of the family. Flow information and scope stay 0. May wait for name servers.
bool resolve(const char* host, uint16_t port, int family, socket_address* address);

// A socket that does not block, above descriptor 0, which whoever calls this may have closed: 0
// means failure here.
int open_socket(int family, uint8_t protocol);

// What can be wrong with a collector beside what the system has a number (errno) for.
enum collector_fault : int {
    no_fault = 0,
    name_unknown = -1,   // its name has no address
    has_closed = -2,     // it has closed the connection
    takes_nothing = -3,  // for too long
};
const char* fault_text(int fault);

// What a connection asks of the system. Tests have another one, with a clock of its own.
class collector_network {
  public:
    collector_network() = default;
    virtual ~collector_network() = default;
    collector_network(const collector_network&) = delete;
    collector_network& operator=(const collector_network&) = delete;

    virtual uint64_t now_ns() = 0;
    virtual uint32_t random() = 0;
    // Looks the name up and begins to connect, to an address of the family. May wait for name
    // servers. Returns a fault; there is no socket then.
    virtual int start(const collector& to, int family) = 0;
    // EINPROGRESS: not yet; else a fault of the connect, or none.
    virtual int connected() = 0;
    // Takes what the collector sends and throws it away. Returns what is wrong with the connection.
    virtual int look() = 0;
    // Returns the number of bytes taken, or a negative errno.
    virtual int64_t send(const void* bytes, uint32_t length) = 0;
    // Bytes of a TCP connection, broken ones too, that the collector's system has not acknowledged.
    virtual uint64_t unacknowledged() = 0;
    // is_abrupt: what is not acknowledged is not sent any more.
    virtual void close(bool is_abrupt) = 0;
    virtual int descriptor() const = 0;
};

class collector_socket final : public collector_network {
  public:
    collector_socket() = default;
    ~collector_socket() override { close(false); }

    uint64_t now_ns() override;
    uint32_t random() override;
    int start(const collector& to, int family) override;
    int connected() override;
    int look() override;
    int64_t send(const void* bytes, uint32_t length) override;
    uint64_t unacknowledged() override;
    void close(bool is_abrupt) override;
    int descriptor() const override { return socket_; }

  private:
    int socket_ = -1;
    bool is_stream_ = false;
};

}  // namespace kestrel
