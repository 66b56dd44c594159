// The IPFIX exporter's connection: TCP streams, collectors that go away and come back, address
// families, SCTP.
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/export_fixture.h"
#include "tests/support/tcp_collector.h"

namespace {

using namespace kestrel_test;

// One template of 4 bytes, so every record is a word and no set has padding.
constexpr const char* one_template = "BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC\n";
const bytes template_set = {0, 2, 0, 12, 1, 0, 0, 1, 0, 8, 0, 4};
const bytes one_record = {1, 0, 0, 8, 0xC0, 0x00, 0x02, 0x01};
const std::string cannot_reconnect = "Can't reconnect to collector\n";

std::optional<tcp_collector>* collector_to_be;  // who comes back during a sleep, and where
uint16_t port_to_be;

class IpfixConnection : public export_fixture {
  protected:
    void connect(const std::string& host, uint16_t port, const std::string& more) {
        std::string params = "host=" + host + ",port=" + std::to_string(port) + more +
                             ",template_file=" + write_file(one_template);
        exporter_ = keep(exporter_ipfix_init(params.data(), table_));
    }
    tcp_connection connect_tcp() {
        connect("127.0.0.1", tcp_->port(), ",protocol=tcp");
        return tcp_->accept();
    }
    void export_one() {
        EXPECT_EQ(0u, exporter_ipfix_export(exporter_, &flow_));
        EXPECT_EQ(0u, flush());
    }
    uint32_t flush() { return exporter_ipfix_flush(exporter_); }
    static bytes message(uint32_t sequence, const bytes& sets) {
        const auto length = static_cast<uint8_t>(16 + sets.size());
        return join({{0, 10, 0, length, 0x5F, 0x5E, 0x10, 0x0A, 0, 0, 0,
                      static_cast<uint8_t>(sequence), 0, 0, 0, 0},
                     sets});
    }

    void* exporter_ = nullptr;
    std::optional<tcp_collector> tcp_{std::in_place};
};

size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

TEST_F(IpfixConnection, MessagesFollowOneAnotherOnAStream) {
    const tcp_connection connection = connect_tcp();
    export_one();
    export_one();
    EXPECT_EQ(join({message(0, join({template_set, one_record})), message(1, one_record)}),
              connection.receive());
}

TEST_F(IpfixConnection, EveryAddressFamilyIsReached) {
    for (const char* ip : {"4", "46", "64"}) {
        connect("127.0.0.1", tcp_->port(), ",protocol=tcp,ip=" + std::string(ip));
        EXPECT_TRUE(tcp_->accept()) << ip;
    }
    const tcp_collector six(AF_INET6);
    for (const char* ip : {"6", "46", "64"}) {
        connect("::1", six.port(), ",protocol=tcp,ip=" + std::string(ip));
        EXPECT_TRUE(six.accept()) << ip;
    }
}

// ---- Reconnecting ----

TEST_F(IpfixConnection, BrokenConnectionIsMadeAgainAtOnce) {
    connect_tcp().reset();
    EXPECT_EQ("", messages_of([&] { export_one(); }));
    EXPECT_EQ(std::vector<uint64_t>{}, sleeps_ns);
    const tcp_connection again = tcp_->accept();
    ASSERT_TRUE(again);
    EXPECT_TRUE(again.receive(65536, 0).empty());  // the message is lost
    export_one();
    EXPECT_EQ(message(1, join({template_set, one_record})), again.receive());
}

// Whoever reads the messages is told at once, and once in ten seconds.
TEST_F(IpfixConnection, ConnectingAgainIsSaidOnceInAWhileAtLevel0) {
    connect_tcp().reset();
    verbose_level = 0;
    EXPECT_EQ("VERBOSE: 0:Export ipfix to 127.0.0.1 port " + std::to_string(tcp_->port()) +
                  ": sending failed (Connection reset by peer), connected again (1 times)\n",
              messages_of([&] { export_one(); }));
    tcp_->accept().reset();
    EXPECT_EQ("", messages_of([&] { export_one(); }));
    EXPECT_TRUE(tcp_->accept());
}

// The templates are pending after the new connection: they leave also without a record.
TEST_F(IpfixConnection, NewConnectionGetsItsTemplatesWithTheNextFlush) {
    connect_tcp().reset();
    export_one();
    const tcp_connection again = tcp_->accept();
    flush();
    EXPECT_EQ(message(1, template_set), again.receive());
    flush();
    EXPECT_TRUE(again.receive(65536, 0).empty());
}

// The message that was lost counts for the refresh.
TEST_F(IpfixConnection, NewConnectionGetsTheDueTemplatesToo) {
    connect("127.0.0.1", tcp_->port(), ",protocol=tcp,template-refresh-packets=1");
    tcp_->accept().reset();
    export_one();
    const tcp_connection again = tcp_->accept();
    flush();
    EXPECT_EQ(message(1, join({template_set, template_set})), again.receive());
}

TEST_F(IpfixConnection, BrokenConnectionIsClosed) {
    tcp_connection connection = connect_tcp();
    const size_t before = open_descriptors();
    for (int i = 0; i < 5; ++i) {
        connection.reset();
        export_one();
        new (&connection) tcp_connection(tcp_->accept());
    }
    EXPECT_EQ(before, open_descriptors());
}

TEST_F(IpfixConnection, CollectorThatComesBackIsWaitedFor) {
    port_to_be = tcp_->port();
    collector_to_be = &tcp_;
    connect_tcp().reset();
    tcp_.reset();
    during_sleep = [] {
        if (sleeps_ns.size() == 3)
            collector_to_be->emplace(AF_INET, port_to_be);
    };
    EXPECT_EQ(cannot_reconnect + cannot_reconnect + cannot_reconnect,
              messages_of([&] { export_one(); }));
    EXPECT_EQ((std::vector<uint64_t>{60 * second, 60 * second, 60 * second}), sleeps_ns);
    ASSERT_EQ(port_to_be, tcp_->port());
    const tcp_connection again = tcp_->accept();
    export_one();
    EXPECT_EQ(message(1, join({template_set, one_record})), again.receive());
}

TEST_F(IpfixConnection, EighthFailureEndsTheProgramAMinuteLater) {
    connect_tcp().reset();
    tcp_.reset();
    during_sleep = [] {
        fprintf(stderr, "%zu: %lu s\n", sleeps_ns.size(), sleeps_ns.back() / second);
    };
    std::string expected = "^";
    for (int attempt = 1; attempt <= 8; ++attempt)
        expected += cannot_reconnect + std::to_string(attempt) + ": 60 s\n";
    EXPECT_EXIT(export_one(), testing::ExitedWithCode(255),
                expected + "Reconnect to collector failed, exiting\n$");
}

// ---- The program is to end ----

const auto lost = [](int records) {
    return "Reconnect to collector interrupted, " + std::to_string(records) + " records lost\n";
};

TEST_F(IpfixConnection, AStopRequestEndsThePauseAndLeavesOneMoreAttempt) {
    connect_tcp().reset();
    tcp_.reset();
    during_sleep = kestrel::request_stop;
    EXPECT_EQ(cannot_reconnect + cannot_reconnect + lost(1), messages_of([&] { export_one(); }));
    EXPECT_EQ(std::vector<uint64_t>{60 * second}, sleeps_ns);
}

TEST_F(IpfixConnection, WhatFollowsIsLostWithoutAnotherAttempt) {
    port_to_be = tcp_->port();
    connect_tcp().reset();
    tcp_.reset();
    during_sleep = kestrel::request_stop;
    messages_of([&] { export_one(); });
    tcp_.emplace(AF_INET, port_to_be);
    // 1450 - 16 bytes of sets hold 358 records of four bytes in a set of their own.
    EXPECT_EQ(lost(1000), messages_of([&] {
                  for (int i = 0; i < 1000; ++i)
                      EXPECT_EQ(0u, exporter_ipfix_export(exporter_, &flow_));
                  flush();
              }));
    EXPECT_EQ("", messages_of([&] { flush(); }));
    EXPECT_FALSE(tcp_->accept(0));
    EXPECT_EQ(std::vector<uint64_t>{60 * second}, sleeps_ns);
}

TEST_F(IpfixConnection, ACollectorThatIsBackAfterTheStopRequestGetsTheRest) {
    port_to_be = tcp_->port();
    collector_to_be = &tcp_;
    connect_tcp().reset();
    tcp_.reset();
    during_sleep = [] {
        collector_to_be->emplace(AF_INET, port_to_be);
        kestrel::request_stop();
    };
    EXPECT_EQ(cannot_reconnect, messages_of([&] { export_one(); }));
    const tcp_connection again = tcp_->accept();
    EXPECT_EQ("", messages_of([&] { export_one(); }));
    EXPECT_EQ(message(1, join({template_set, one_record})), again.receive());
}

TEST_F(IpfixConnection, AfterAStopRequestThereIsOneAttemptAndNoPause) {
    connect_tcp().reset();
    tcp_.reset();
    kestrel::request_stop();
    EXPECT_EQ(cannot_reconnect + lost(1), messages_of([&] { export_one(); }));
    EXPECT_EQ(std::vector<uint64_t>{}, sleeps_ns);
}

TEST_F(IpfixConnection, AStopRequestInTheEighthPauseEndsInOrder) {
    connect_tcp().reset();
    tcp_.reset();
    during_sleep = [] {
        if (sleeps_ns.size() == 8)
            kestrel::request_stop();
    };
    std::string expected;
    for (int attempt = 0; attempt < 8; ++attempt)
        expected += cannot_reconnect;
    EXPECT_EQ(expected + lost(1), messages_of([&] { export_one(); }));
}

// ---- Datagrams ----

// A datagram socket tells of a missing collector with the send after; connecting it again works
// always, so the exporter goes on at once.
TEST_F(IpfixConnection, MissingUdpCollectorCostsMessagesOnly) {
    connect("127.0.0.1", collector_->port(), "");
    const uint16_t port = collector_->port();
    collector_.reset();
    const size_t before = open_descriptors();
    // In turn lost on the way and refused; the eleventh is lost.
    for (int i = 0; i < 11; ++i)
        export_one();
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(std::vector<uint64_t>{}, sleeps_ns);
    collector_ = std::make_unique<udp_collector>(port);
    export_one();  // refused on account of the one before
    EXPECT_TRUE(receive().empty());
    export_one();
    export_one();
    EXPECT_EQ(message(12, join({template_set, one_record})), receive());
    EXPECT_EQ(message(13, one_record), receive());
}

// Every thousandth message is reported. Were lost ones left out, 2000 would bring one report.
TEST_F(IpfixConnection, LostMessagesCountForTheProgressReport) {
    connect("127.0.0.1", collector_->port(), "");
    collector_.reset();
    verbose_level = 4;
    const std::string text = messages_of([&] {
        for (int message = 0; message < 2000; ++message)
            export_one();
    });
    size_t reports = 0;
    for (size_t at = 0; (at = text.find("EXPORTER_SENT_PACKETS: ", at)) != std::string::npos; ++at)
        ++reports;
    EXPECT_EQ(2u, reports);
}

// ---- Partial sends ----

// The exporter's own end of the connection, found by its peer's port.
int exporter_socket(uint16_t port) {
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
        sockaddr_in peer = {};
        socklen_t size = sizeof peer;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == port)
            return descriptor;
    }
    return -1;
}

// The buffers between both ends hold a few messages, the reader is slow, and signals break the
// sends that wait: what arrives is whole all the same.
TEST_F(IpfixConnection, PartialSendsAreCompleted) {
    struct sigaction interrupting = {}, saved;
    interrupting.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupting, &saved);
    const tcp_connection connection = connect_tcp();
    const int socket = exporter_socket(tcp_->port());
    ASSERT_GT(socket, 0);
    const int small = 2048;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    constexpr uint32_t records = 300'000;
    std::thread exporting([&] {
        for (uint32_t i = 0; i < records; ++i) {
            flow_.ipv4.srcipv4 = i;
            exporter_ipfix_export(exporter_, &flow_);
        }
        flush();
        shutdown(socket, SHUT_WR);
    });
    bytes stream;
    for (bytes part; !(part = connection.receive(10'000)).empty();) {
        stream.insert(stream.end(), part.begin(), part.end());
        if (stream.size() < 1'000'000) {
            std::this_thread::sleep_for(std::chrono::microseconds(500));
            pthread_kill(exporting.native_handle(), SIGUSR1);
        }
    }
    exporting.join();
    sigaction(SIGUSR1, &saved, nullptr);
    uint32_t next = 0;
    for (size_t at = 0; at < stream.size();) {
        ASSERT_EQ(10u, big_endian(stream, at, 2));
        ASSERT_EQ(next, big_endian(stream, at + 8, 4));
        const size_t end = at + big_endian(stream, at + 2, 2);
        at += 16;
        if (next == 0)
            at += template_set.size();
        ASSERT_EQ(256u, big_endian(stream, at, 2));
        for (at += 4; at < end; at += 4)
            ASSERT_EQ(next++, big_endian(stream, at, 4));
    }
    EXPECT_EQ(records, next);
}

// ---- SCTP ----

// Where the kernel has no SCTP the socket is refused, which is a failed connection like others.
TEST_F(IpfixConnection, SctpIsAStreamOrAFailedConnection) {
    const tcp_collector sctp(AF_INET, 0, 132);
    if (sctp.port() == 0) {
        EXPECT_EXIT(connect("127.0.0.1", 9, ",protocol=sctp"), testing::ExitedWithCode(255),
                    "^Can't connect to collector\n$");
        return;
    }
    connect("127.0.0.1", sctp.port(), ",protocol=SCTP");
    const tcp_connection connection = sctp.accept();
    export_one();
    EXPECT_EQ(message(0, join({template_set, one_record})), connection.receive());
}

}  // namespace
