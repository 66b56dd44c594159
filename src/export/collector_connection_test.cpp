// The connection of an export in the background, on a clock and a network that a test makes up.
#include "export/collector_connection.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "base/counters.h"
#include "base/outlet.h"

namespace kestrel {
namespace {

// A collector and the way to it, of which a test says what happens.
class fake_network final : public collector_network {
  public:
    uint64_t time_ns = 1000 * ns_per_second;
    uint64_t look_up_ns = 0;  // what looking a name up takes
    int start_fault = no_fault;
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
};

class Connection : public testing::Test {
  protected:
    explicit Connection(uint8_t protocol = IPPROTO_TCP) {
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
    ~Connection() override {
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

TEST_F(Connection, GreetsAndSendsOnlyWhenTheConnectionHasLivedForAMoment) {
    offer("one");
    run_for(0.24);
    EXPECT_EQ(net_.stream, "templates.");
    EXPECT_FALSE(connection_->is_up());
    run_for(0.02);
    EXPECT_TRUE(connection_->is_up());
    EXPECT_EQ(net_.stream, "templates.one");
    EXPECT_EQ(talk_.greetings, 1U);
    run_for(0.1);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
    EXPECT_EQ(queued(), 0U);
}

TEST_F(Connection, WaitsLongerAfterEachFailure) {
    net_.start_fault = name_unknown;
    to_.ip = 4;
    const uint64_t start_ns = net_.time_ns;
    run_for(200);
    std::vector<uint64_t> seconds;
    for (const uint64_t time_ns : net_.attempts)
        seconds.push_back((time_ns - start_ns + ns_per_second / 2) / ns_per_second);
    EXPECT_EQ(seconds, (std::vector<uint64_t>{0, 1, 3, 7, 15, 31, 63, 123, 183}));
}

TEST_F(Connection, BeginsAnewWithShortPausesAfterAGoodLife) {
    to_.ip = 4;
    net_.connect_fault = ECONNREFUSED;
    run_for(40);
    net_.connect_fault = no_fault;
    run_for(60);
    ASSERT_TRUE(connection_->is_up());
    net_.attempts.clear();
    net_.look_fault = ECONNRESET;
    const uint64_t broken_ns = net_.time_ns;
    offer("x");
    run_for(1.4);
    ASSERT_EQ(net_.attempts.size(), 1U);
    EXPECT_NEAR(static_cast<double>(net_.attempts[0] - broken_ns), 1e9, 2e6);
}

TEST_F(Connection, AnAcceptedConnectionThatIsClosedCostsNoMessage) {
    for (int n = 0; n < 10; ++n)
        offer("message");
    net_.is_sticky = true;
    net_.look_fault = has_closed;
    run_for(300);
    EXPECT_GE(net_.attempts.size(), 8U);
    EXPECT_LE(net_.attempts.size(), 12U);
    EXPECT_EQ(queued(), 10U);
    net_.is_sticky = false;
    net_.look_fault = no_fault;
    run_for(80);
    EXPECT_EQ(count(OUTLET_SENT), 10U);
}

TEST_F(Connection, TriesBothFamilies) {
    to_.ip = 46;
    net_.connect_fault = ECONNREFUSED;
    run_for(0.1);
    EXPECT_EQ(net_.families, (std::vector<int>{AF_INET, AF_INET6}));
    net_.families.clear();
    to_.ip = 64;
    run_for(1.2);
    EXPECT_EQ(net_.families, (std::vector<int>{AF_INET6, AF_INET}));
    EXPECT_EQ(net_.open_sockets, 0U);
}

TEST_F(Connection, GivesAConnectFiveSeconds) {
    to_.ip = 4;
    net_.connect_fault = EINPROGRESS;
    const uint64_t start_ns = net_.time_ns;
    run_for(5.5);
    EXPECT_EQ(net_.closes.size(), 1U);
    run_for(1);
    ASSERT_EQ(net_.attempts.size(), 2U);
    EXPECT_NEAR(static_cast<double>(net_.attempts[1] - start_ns), 6e9, 5e6);
}

TEST_F(Connection, HoldsMessagesUntilTheyAreAcknowledged) {
    come_up();
    net_.acknowledges = false;
    offer("one");
    offer("two");
    run_for(0.1);
    EXPECT_EQ(net_.stream, "templates.onetwo");
    EXPECT_EQ(count(OUTLET_SENT), 0U);
    net_.acknowledged = 15;  // all but a byte of the second
    run_for(0.1);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
    EXPECT_EQ(queued(), 1U);
    net_.acknowledged = 16;
    run_for(0.1);
    EXPECT_EQ(count(OUTLET_SENT), 2U);
}

TEST_F(Connection, CountsWhatABrokenConnectionTook) {
    come_up();
    net_.acknowledges = false;
    offer("one");
    offer("two");
    offer("three");
    run_for(0.1);
    net_.acknowledged = 13;
    net_.look_fault = ECONNRESET;
    run_for(0.1);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
    EXPECT_EQ(count(OUTLET_UNACKNOWLEDGED), 2U);
    EXPECT_EQ(queued(), 0U);
    EXPECT_EQ(net_.closes, std::vector<bool>{true});
}

TEST_F(Connection, SendsAMessageOfWhichAPartWasSentWholeAgain) {
    come_up();
    net_.acknowledges = false;
    net_.room = 5;
    offer("one");
    offer("two");
    run_for(0.1);
    EXPECT_EQ(net_.stream, "templates.onetw");
    net_.look_fault = has_closed;
    net_.acknowledges = true;
    net_.room = UINT64_MAX;
    run_for(2);
    EXPECT_EQ(net_.stream, "templates.two");
    EXPECT_EQ(count(OUTLET_UNACKNOWLEDGED), 1U);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

TEST_F(Connection, GoesOnInTheMiddleOfAMessageWhenThereIsRoom) {
    come_up();
    net_.acknowledges = false;
    net_.room = 5;
    offer("one");
    offer("two");
    run_for(3);
    net_.room = 100;
    run_for(0.1);
    EXPECT_EQ(net_.stream, "templates.onetwo");
}

TEST_F(Connection, LeavesACollectorThatTakesNothingForFifteenSeconds) {
    come_up();
    net_.acknowledges = false;
    net_.room = 3;
    for (int n = 0; n < 5; ++n)
        offer("one");
    run_for(14.9);
    EXPECT_TRUE(connection_->is_up());
    run_for(0.2);
    EXPECT_FALSE(connection_->is_up());
    EXPECT_EQ(count(OUTLET_UNACKNOWLEDGED), 1U);
    EXPECT_EQ(queued(), 4U);
}

TEST_F(Connection, AnIdleHourIsNoStall) {
    come_up();
    EXPECT_LT(run_for(3600), 5U);
    net_.acknowledges = false;
    offer("one");
    run_for(10);
    EXPECT_TRUE(connection_->is_up());
}

TEST_F(Connection, ATrickleIntoABrokenConnectionIsNoProgress) {
    come_up();
    net_.acknowledges = false;
    for (int n = 0; n < 14; ++n) {
        offer("one");
        run_for(1);
    }
    EXPECT_TRUE(connection_->is_up());
    offer("one");
    run_for(1.1);
    EXPECT_FALSE(connection_->is_up());
}

TEST_F(Connection, AnEndBringsOneMoreAttempt) {
    to_.ip = 4;
    net_.connect_fault = ECONNREFUSED;
    run_for(100);
    net_.attempts.clear();
    queue_->drained_ns = 1;  // the program ends
    run_for(10);
    EXPECT_GE(net_.attempts.size(), 9U);
    EXPECT_LE(net_.attempts.size(), 12U);
}

TEST_F(Connection, EndsGentlyWhenAllIsAcknowledgedAndAbruptlyWhenNot) {
    come_up();
    offer("one");
    run_for(0.1);
    connection_->end(queue_);
    EXPECT_EQ(net_.closes, std::vector<bool>{false});
    net_.time_ns += ns_per_second;
    run_for(0.3);
    net_.acknowledges = false;
    offer("two");
    run_for(0.1);
    connection_->end(queue_);
    EXPECT_EQ(net_.closes, (std::vector<bool>{false, true}));
}

class Datagrams : public Connection {
  protected:
    Datagrams() : Connection(IPPROTO_UDP) {}
};

TEST_F(Datagrams, AClosedPortIsFoundByTheTemplates) {
    offer("one");
    net_.refuses = true;
    run_for(100);
    for (const std::string& sent : net_.sent)
        EXPECT_EQ(sent, "templates.");
    EXPECT_EQ(talk_.greetings, 0U);
    EXPECT_EQ(queued(), 1U);
    net_.refuses = false;
    run_for(80);
    EXPECT_EQ(net_.stream, "templates.one");
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

TEST_F(Datagrams, TheOneBeforeARefusalIsLostAndTheNextOneIsSentAgain) {
    come_up();
    offer("one");
    offer("two");
    run_for(0.01);
    EXPECT_EQ(net_.stream, "templates.onetwo");
    EXPECT_EQ(count(OUTLET_SENT), 1U);
    net_.send_fault = ECONNREFUSED;  // the answer to "two"
    offer("three");
    run_for(2);
    EXPECT_EQ(net_.stream, "templates.three");
    EXPECT_EQ(count(OUTLET_SENT), 2U);
    EXPECT_EQ(count(OUTLET_UNACKNOWLEDGED), 1U);
}

TEST_F(Datagrams, ARefusalIsSeenWithoutSendingMore) {
    come_up();
    offer("one");
    run_for(0.01);
    net_.look_fault = ECONNREFUSED;
    run_for(0.3);
    EXPECT_EQ(count(OUTLET_UNACKNOWLEDGED), 1U);
    EXPECT_FALSE(connection_->is_up());
}

TEST_F(Datagrams, WithoutARouteNothingIsLost) {
    come_up();
    offer("one");
    run_for(0.01);
    net_.send_fault = ENETUNREACH;
    offer("two");
    run_for(2);
    EXPECT_EQ(net_.stream, "templates.two");
    EXPECT_EQ(count(OUTLET_SENT), 2U);
}

TEST_F(Datagrams, OneThatIsTooLongIsLostAndNoOutage) {
    come_up();
    net_.send_fault = EMSGSIZE;
    offer("one");
    offer("two");
    run_for(1);
    EXPECT_TRUE(connection_->is_up());
    EXPECT_EQ(count(OUTLET_UNSENT), 1U);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

// NetFlow v5 has no templates.
class Ungreeted : public Connection {
  protected:
    Ungreeted() : Connection(IPPROTO_UDP) { talk_.words.clear(); }
};

TEST_F(Ungreeted, TheFirstDatagramProvesTheConnection) {
    offer("one");
    offer("two");
    run_for(0.2);
    EXPECT_EQ(net_.stream, "one");
    run_for(0.1);
    EXPECT_EQ(net_.stream, "onetwo");
    EXPECT_TRUE(connection_->is_up());
}

TEST_F(Ungreeted, TheFirstDatagramIsSentAgainWhenItWasRefused) {
    offer("one");
    offer("two");
    net_.refuses = true;
    run_for(20);
    EXPECT_GE(net_.sent.size(), 4U);
    for (const std::string& sent : net_.sent)
        EXPECT_EQ(sent, "one");
    EXPECT_EQ(queued(), 2U);
    net_.refuses = false;
    run_for(40);
    EXPECT_EQ(net_.stream, "onetwo");
    EXPECT_EQ(count(OUTLET_SENT), 2U);
}

TEST_F(Ungreeted, AnIdleExportWaitsForItsFirstMessage) {
    EXPECT_LT(run_for(3600), 5U);
    offer("one");
    run_for(1);
    EXPECT_EQ(net_.stream, "one");
    EXPECT_TRUE(connection_->is_up());
}

// A day with a collector that comes and goes, and every fault that there is.
TEST_F(Connection, ADayOfOutages) {
    std::mt19937 random(24);
    const auto chance = [&random](unsigned percent) { return random() % 100 < percent; };
    net_.has_random = true;
    net_.is_sticky = true;
    uint64_t offered = 0;
    uint64_t rounds = 0;
    const uint64_t start_ns = net_.time_ns;
    while (net_.time_ns < start_ns + 24 * 3600 * ns_per_second) {
        const bool is_away = chance(60);
        net_.start_fault = is_away && chance(30) ? int{name_unknown} : no_fault;
        net_.look_up_ns = is_away && chance(10) ? 75 * ns_per_second : 0;
        net_.connect_fault = is_away ? (chance(50) ? ECONNREFUSED : EINPROGRESS) : no_fault;
        net_.look_fault =
            is_away || chance(10) ? (chance(50) ? int{has_closed} : ECONNRESET) : no_fault;
        net_.acknowledges = chance(50);
        net_.room = net_.acknowledges ? UINT64_MAX : 500;
        for (auto n = random() % 50; n > 0; --n, ++offered)
            offer(std::string(1 + random() % 1400, 'x'));
        rounds += run_for(static_cast<double>(1 + random() % 200));
        ASSERT_LE(net_.open_sockets, 1U);
    }
    EXPECT_GT(net_.attempts.size(), 24 * 3600 / 75U / 2);
    EXPECT_LT(net_.attempts.size(), 24 * 3600U);
    EXPECT_LT(rounds, 24 * 3600 * 60U);  // never more than the looks for acknowledgements
    net_.start_fault = net_.connect_fault = net_.look_fault = no_fault;
    net_.look_up_ns = 0;
    net_.acknowledges = true;
    net_.room = UINT64_MAX;
    run_for(200);
    EXPECT_TRUE(connection_->is_up());
    EXPECT_EQ(queued(), 0U);
    EXPECT_GT(count(OUTLET_SENT), 1000U);
    EXPECT_GT(count(OUTLET_UNACKNOWLEDGED), 10U);
    EXPECT_GT(count(OUTLET_QUEUE_FULL), 1000U);
    EXPECT_EQ(count(OUTLET_SENT) + count(OUTLET_UNACKNOWLEDGED) + count(OUTLET_QUEUE_FULL) +
                  count(OUTLET_UNSENT),
              offered);
}

}  // namespace
}  // namespace kestrel
