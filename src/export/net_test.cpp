#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "base/stop.h"
#include "kestrelexp/builtin.h"

namespace {

constexpr uint8_t tcp = 6;
constexpr uint8_t udp = 17;
constexpr uint8_t sctp = 132;

// A socket bound to a loopback port of its own; streams listen.
class local_socket {
  public:
    // backlog below 0: does not listen, so connections are refused.
    local_socket(int family, int type, int backlog = 5) : socket_(::socket(family, type, 0)) {
        sockaddr_in6 six = {};
        six.sin6_family = AF_INET6;
        six.sin6_addr = in6addr_loopback;
        sockaddr_in four = {};
        four.sin_family = AF_INET;
        four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool is_six = family == AF_INET6;
        sockaddr* any =
            is_six ? reinterpret_cast<sockaddr*>(&six) : reinterpret_cast<sockaddr*>(&four);
        socklen_t size = is_six ? sizeof six : sizeof four;
        EXPECT_EQ(0, bind(socket_, any, size));
        EXPECT_EQ(0, getsockname(socket_, any, &size));
        port_ = ntohs(is_six ? six.sin6_port : four.sin_port);
        if (type == SOCK_STREAM && backlog >= 0) {
            EXPECT_EQ(0, listen(socket_, backlog));
        }
    }
    ~local_socket() { close(socket_); }
    local_socket(const local_socket&) = delete;
    local_socket& operator=(const local_socket&) = delete;

    uint16_t port() const { return port_; }
    int accept_one() const { return accept(socket_, nullptr, nullptr); }

  private:
    int socket_;
    uint16_t port_ = 0;
};

int peer_family(int descriptor) {
    sockaddr_storage peer = {};
    socklen_t size = sizeof peer;
    getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size);
    return peer.ss_family;
}

int option(int descriptor, int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(descriptor, level, name, &value, &size);
    return value;
}

size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

void ignore_signal(int) {}

// Makes SIGUSR1 break system calls, as a handler without SA_RESTART does.
class interrupting_signal {
  public:
    interrupting_signal() {
        struct sigaction action = {};
        action.sa_handler = ignore_signal;
        sigaction(SIGUSR1, &action, &before_);
    }
    ~interrupting_signal() { sigaction(SIGUSR1, &before_, nullptr); }

  private:
    struct sigaction before_ = {};
};

void pause_ms(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

TEST(NetConnect, Ip4ReachesAnIpv4Collector) {
    const local_socket collector(AF_INET, SOCK_STREAM);
    const int connection = net_connect("127.0.0.1", collector.port(), tcp, 4);
    ASSERT_GT(connection, 0);
    EXPECT_EQ(AF_INET, peer_family(connection));
    close(connection);
}

TEST(NetConnect, Ip6ReachesAnIpv6Collector) {
    const local_socket collector(AF_INET6, SOCK_STREAM);
    const int connection = net_connect("::1", collector.port(), tcp, 6);
    ASSERT_GT(connection, 0);
    EXPECT_EQ(AF_INET6, peer_family(connection));
    close(connection);
}

TEST(NetConnect, HostNamesAreResolved) {
    const local_socket collector(AF_INET, SOCK_STREAM);
    const int connection = net_connect("localhost", collector.port(), tcp, 4);
    EXPECT_GT(connection, 0);
    close(connection);
}

TEST(NetConnect, Ip46FallsBackToIpv6) {
    const local_socket collector(AF_INET6, SOCK_STREAM);
    const int connection = net_connect("::1", collector.port(), tcp, 46);
    ASSERT_GT(connection, 0);
    EXPECT_EQ(AF_INET6, peer_family(connection));
    close(connection);
}

TEST(NetConnect, Ip64FallsBackToIpv4) {
    const local_socket collector(AF_INET, SOCK_STREAM);
    const int connection = net_connect("127.0.0.1", collector.port(), tcp, 64);
    ASSERT_GT(connection, 0);
    EXPECT_EQ(AF_INET, peer_family(connection));
    close(connection);
}

TEST(NetConnect, OtherIpValuesNeverConnect) {
    const local_socket collector(AF_INET, SOCK_STREAM);
    for (const uint32_t ip : {0u, 5u, 44u, 60u, 466u})
        EXPECT_EQ(0, net_connect("127.0.0.1", collector.port(), tcp, ip)) << ip;
}

TEST(NetConnect, HostOfTheOtherFamilyIsNotResolved) {
    const local_socket collector(AF_INET6, SOCK_STREAM);
    EXPECT_EQ(0, net_connect("::1", collector.port(), tcp, 4));
    EXPECT_EQ(0, net_connect("127.0.0.1", collector.port(), tcp, 6));
}

TEST(NetConnect, NoHostIsAFailure) {
    EXPECT_EQ(0, net_connect("", 9, udp, 46));
    EXPECT_EQ(0, net_connect(nullptr, 9, udp, 46));
}

TEST(NetConnect, RefusedConnectionIsZeroAndLeavesNoDescriptor) {
    const local_socket deaf(AF_INET, SOCK_STREAM, -1);
    const size_t before = open_descriptors();
    EXPECT_EQ(0, net_connect("127.0.0.1", deaf.port(), tcp, 46));
    EXPECT_EQ(before, open_descriptors());
}

TEST(NetConnect, TcpSendsWithoutDelay) {
    const local_socket collector(AF_INET, SOCK_STREAM);
    const int connection = net_connect("127.0.0.1", collector.port(), tcp, 4);
    EXPECT_EQ(SOCK_STREAM, option(connection, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(1, option(connection, IPPROTO_TCP, TCP_NODELAY));
    close(connection);
}

TEST(NetConnect, UdpIsADatagramSocket) {
    const local_socket collector(AF_INET, SOCK_DGRAM);
    const int connection = net_connect("127.0.0.1", collector.port(), udp, 4);
    EXPECT_EQ(SOCK_DGRAM, option(connection, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(udp, option(connection, SOL_SOCKET, SO_PROTOCOL));
    close(connection);
}

// Where the kernel has no SCTP, socket() itself fails and its result is what comes back.
TEST(NetConnect, SctpIsAStreamOrTheFailureOfSocket) {
    const int listener = socket(AF_INET, SOCK_STREAM, sctp);
    if (listener < 0) {
        EXPECT_LT(net_connect("127.0.0.1", 9, sctp, 4), 0);
        return;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(0, bind(listener, any, size));
    ASSERT_EQ(0, getsockname(listener, any, &size));
    ASSERT_EQ(0, listen(listener, 1));
    const int connection = net_connect("127.0.0.1", ntohs(address.sin_port), sctp, 4);
    ASSERT_GT(connection, 0);
    EXPECT_EQ(SOCK_STREAM, option(connection, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(sctp, option(connection, SOL_SOCKET, SO_PROTOCOL));
    close(connection);
    close(listener);
}

TEST(NetConnect, ClosedStandardInputDoesNotMakeDescriptorZero) {
    const local_socket collector(AF_INET, SOCK_STREAM);
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    const int connection = net_connect("127.0.0.1", collector.port(), tcp, 4);
    if (kept >= 0) {
        dup2(kept, STDIN_FILENO);
        close(kept);
    }
    ASSERT_GT(connection, STDERR_FILENO);
    EXPECT_EQ(AF_INET, peer_family(connection));
    close(connection);
}

// The listener's queue is full, so the connect waits; a signal interrupts it before there is room.
TEST(NetConnect, SignalDoesNotEndAWaitingConnect) {
    const interrupting_signal interrupting;
    const local_socket collector(AF_INET, SOCK_STREAM, 0);
    const int filler = net_connect("127.0.0.1", collector.port(), tcp, 4);
    int connection = -1;
    std::thread connecting(
        [&] { connection = net_connect("127.0.0.1", collector.port(), tcp, 4); });
    pause_ms(50);
    pthread_kill(connecting.native_handle(), SIGUSR1);
    pause_ms(20);
    const int accepted = collector.accept_one();
    connecting.join();
    EXPECT_GT(connection, 0);
    for (const int descriptor : {filler, accepted, connection})
        close(descriptor);
}

// The wait goes on for a second: a collector that is far away may still answer.
TEST(NetConnect, AStopRequestEndsAWaitingConnect) {
    const local_socket collector(AF_INET, SOCK_STREAM, 0);
    const int filler = net_connect("127.0.0.1", collector.port(), tcp, 4);
    ASSERT_GT(filler, 0);
    const auto start = std::chrono::steady_clock::now();
    int connection = -1;
    std::thread connecting(
        [&] { connection = net_connect("127.0.0.1", collector.port(), tcp, 4); });
    pause_ms(50);
    kestrel::request_stop();
    connecting.join();
    kestrel::stop_request = false;
    EXPECT_EQ(0, connection);
    const auto passed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(passed, std::chrono::milliseconds(900));
    EXPECT_LE(passed, std::chrono::seconds(10));
    close(filler);
}

TEST(NetConnect, AConnectedSocketBlocks) {
    const local_socket collector(AF_INET, SOCK_STREAM);
    const int connection = net_connect("127.0.0.1", collector.port(), tcp, 4);
    EXPECT_EQ(0, fcntl(connection, F_GETFL) & O_NONBLOCK);
    close(connection);
}

class NetSend : public testing::Test {
  protected:
    void SetUp() override {
        const local_socket collector(AF_INET, SOCK_STREAM);
        connection_ = net_connect("127.0.0.1", collector.port(), tcp, 4);
        peer_ = collector.accept_one();
        ASSERT_GT(connection_, 0);
        ASSERT_GT(peer_, 0);
    }
    void TearDown() override {
        close(connection_);
        close(peer_);
    }

    int connection_ = -1;
    int peer_ = -1;
};

TEST_F(NetSend, WholeBufferIsSent) {
    EXPECT_EQ(5, net_send(connection_, "hello", 5, 0));
    char text[6] = "";
    EXPECT_EQ(5, recv(peer_, text, 5, MSG_WAITALL));
    EXPECT_STREQ("hello", text);
}

TEST_F(NetSend, NothingNeedsNoSocket) {
    EXPECT_EQ(0, net_send(-1, nullptr, 0, 0));
}

TEST_F(NetSend, FailureIsNegative) {
    EXPECT_EQ(-1, net_send(-1, "x", 1, 0));
    shutdown(connection_, SHUT_WR);
    EXPECT_EQ(-1, net_send(connection_, "x", 1, MSG_NOSIGNAL));
}

// The peer reads slowly and signals keep breaking the blocked send, so it comes back with a part of
// the message, or with none of it, many times over.
TEST_F(NetSend, PartialSendsAreCompleted) {
    const interrupting_signal interrupting;
    std::vector<uint8_t> message(16'000'000);
    for (size_t i = 0; i < message.size(); ++i)
        message[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
    int64_t result = 0;
    std::thread sending([&] {
        result = net_send(connection_, message.data(), static_cast<uint32_t>(message.size()), 0);
        shutdown(connection_, SHUT_WR);
    });
    const auto interrupt = [&] {
        pause_ms(1);
        pthread_kill(sending.native_handle(), SIGUSR1);
    };
    for (int i = 0; i < 20; ++i)
        interrupt();  // the first finds a part sent, those after it find nothing
    std::vector<uint8_t> received(message.size());
    for (size_t got = 0; got < received.size();) {
        const bool slow = got < 4'000'000;
        if (slow)
            interrupt();
        const size_t wanted = slow ? size_t{100'000} : received.size();
        const ssize_t part =
            recv(peer_, received.data() + got, std::min(wanted, received.size() - got), 0);
        if (part <= 0)
            break;  // the sender gave up
        got += static_cast<size_t>(part);
    }
    sending.join();
    EXPECT_EQ(16'000'000, result);
    EXPECT_TRUE(message == received);
}

}  // namespace
