// A connection in the background on a clock and a network that a test makes up: what stands in for
// the system, and the rounds of an outlet's worker in that time.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/outlet.h"
#include "export/collector_connection.h"

namespace kestrel {

// A collector and the way to it, of which a test says what happens.
class fake_network final : public collector_network {
  public:
    uint64_t time_ns = 1000 * ns_per_second;
    uint64_t look_up_ns = 0;  // what looking a name up takes
    int start_fault = no_fault;
    int missing_family = 0;        // of which the name has no address
    int connect_fault = no_fault;  // EINPROGRESS: nobody answers
    int look_fault = no_fault;     // of the next look alone, where it is not sticky
    bool is_sticky = false;
    bool refuses = false;        // each datagram: the answer is there at the next look
    int send_fault = 0;          // of the next datagram alone
    uint64_t room = UINT64_MAX;  // bytes that the system takes until they are acknowledged
    bool acknowledges = true;
    bool has_random = false;

    std::vector<int> families;       // of the attempts
    std::vector<uint64_t> attempts;  // their times
    std::string stream;              // what was sent on the connection
    std::vector<std::string> sent;   // each send
    unsigned open_sockets = 0;
    std::vector<bool> closes;  // abrupt?

    uint64_t now_ns() override { return time_ns; }
    uint32_t random() override {
        return has_random ? static_cast<uint32_t>(numbers_()) * 2 : 0x80000000;
    }
    int start(const collector&, int family) override {
        families.push_back(family);
        attempts.push_back(time_ns);
        time_ns += look_up_ns;
        if (family == missing_family)
            return name_unknown;
        if (start_fault != no_fault)
            return start_fault;
        ++open_sockets;
        stream.clear();
        acknowledged = 0;
        return no_fault;
    }
    int connected() override { return connect_fault; }
    int look() override {
        const int fault = refuses && !stream.empty() ? ECONNREFUSED : look_fault;
        if (!is_sticky)
            look_fault = no_fault;
        return fault;
    }
    int64_t send(const void* bytes, uint32_t length) override {
        if (send_fault != 0) {
            const int fault = send_fault;
            send_fault = 0;
            return -fault;
        }
        const uint64_t taken = std::min<uint64_t>(length, room);
        if (taken == 0)
            return -EAGAIN;
        const std::string part(static_cast<const char*>(bytes), taken);
        stream += part;
        sent.push_back(part);
        if (!acknowledges)
            room -= taken;
        else
            acknowledged = stream.size();
        return static_cast<int64_t>(taken);
    }
    uint64_t unacknowledged() override { return stream.size() - acknowledged; }
    void close(bool is_abrupt) override {
        if (open_sockets > 0)
            closes.push_back(is_abrupt);
        open_sockets = 0;
    }
    int descriptor() const override { return open_sockets > 0 ? 3 : -1; }

    uint64_t acknowledged = 0;

  private:
    std::minstd_rand numbers_{1};
};

class talkative final : public conversation {
  public:
    std::string words = "templates.";
    unsigned greetings = 0;

    uint32_t greeting(uint8_t* message) override {
        words.copy(reinterpret_cast<char*>(message), words.size());
        return static_cast<uint32_t>(words.size());
    }
    void note_greeting() override { ++greetings; }

    std::vector<std::string> own;  // what it has to say of its own, in that order
    unsigned own_sent = 0;
    unsigned own_lost = 0;

    uint32_t own_message(uint64_t, uint8_t* message) override {
        if (own.empty())
            return 0;
        const std::string text = own.front();
        own.erase(own.begin());
        text.copy(reinterpret_cast<char*>(message), text.size());
        return static_cast<uint32_t>(text.size());
    }
    void note_own_end(uint32_t, bool is_sent) override { ++(is_sent ? own_sent : own_lost); }
    uint64_t next_own_ns(uint64_t now_ns) override {
        return own.empty() ? UINT64_MAX : now_ns + 10 * ns_per_ms;
    }
};

class connection_fixture : public testing::Test {
  protected:
    explicit connection_fixture(uint8_t protocol = IPPROTO_TCP) {
        verbose_level = -2;  // what is said is tested where the program runs
        to_.host = host_.data();
        to_.port = 4739;
        to_.protocol = protocol;
        connection_ = std::make_unique<collector_connection>("tested", to_, talk_, account_, net_);
        const outlet_owner owner = {
            connection_.get(),
            [](void* context, outlet* queue, int32_t is_closing, outlet_wait* wait) {
                return int32_t{static_cast<collector_connection*>(context)->tend(
                    queue, is_closing != 0, *wait)};
            },
            [](void* context, outlet* queue, outlet_message* message) {
                return int32_t{
                    static_cast<collector_connection*>(context)->deliver(queue, *message)};
            },
            [](void* context, outlet* queue) {
                static_cast<collector_connection*>(context)->end(queue);
            }};
        queue_ = make_outlet(owner, 1 << 16, 0);
    }
    ~connection_fixture() override {
        queue_->is_over = true;  // there is no worker to wait for
        close_outlets();
    }

    void offer(std::string text) {
        const outlet_message message = {
            text.data(), static_cast<uint32_t>(text.size()), 1, 10, 0, 0};
        (void)outlet_offer(queue_, &message);
    }

    outlet_round round() { return run_round(*queue_); }

    // Rounds at which the worker would come along in so many seconds. Returns how many.
    unsigned run_for(double seconds) {
        const uint64_t end_ns = net_.time_ns + static_cast<uint64_t>(seconds * 1e9);
        unsigned rounds = 0;
        for (;;) {
            const outlet_round done = round();
            ++rounds;
            if (done.end == outlet_round::busy || done.end == outlet_round::later)
                continue;
            const bool is_nap = done.end == outlet_round::idle && done.delivered > 0;
            const int timeout_ms = is_nap ? 1 : done.wait.timeout_ms;
            const uint64_t pause_ns =
                timeout_ms < 0 ? UINT64_MAX : static_cast<uint64_t>(timeout_ms) * ns_per_ms;
            if (net_.time_ns >= end_ns || pause_ns > end_ns - net_.time_ns) {
                net_.time_ns = std::max(net_.time_ns, end_ns);
                return rounds;
            }
            net_.time_ns += pause_ns;
        }
    }

    void come_up() {
        run_for(0.3);
        ASSERT_TRUE(connection_->is_up());
        net_.sent.clear();
    }

    uint64_t count(outlet_fate fate) const {
        outlet_counts counts;
        outlet_read_counts(queue_, &counts);
        return counts.fates[fate].messages;
    }
    uint64_t queued() const {
        outlet_counts counts;
        outlet_read_counts(queue_, &counts);
        return counts.queued.messages;
    }

    std::string host_ = "collector.example";
    collector to_;
    fake_network net_;
    talkative talk_;
    send_account account_{"reason=\"none\""};
    std::unique_ptr<collector_connection> connection_;
    outlet* queue_ = nullptr;
};

}  // namespace kestrel
