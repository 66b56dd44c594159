// The connection of an export in the background: over a stream, and in a day of outages.
#include "export/collector_connection.h"

#include "tests/support/connection_fixture.h"

namespace kestrel {
namespace {

using Connection = connection_fixture;

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

// It is there each time, and stops at once: 15 s up, then pauses of 1, 2, 4, 8, 16, 32 s and so on.
TEST_F(Connection, WaitsLongerForACollectorThatStallsAgainAndAgain) {
    to_.ip = 4;
    net_.acknowledges = false;
    net_.room = 20;
    for (int n = 0; n < 100; ++n)
        offer("message");
    const uint64_t start_ns = net_.time_ns;
    while (net_.time_ns < start_ns + 160 * ns_per_second) {
        run_for(1);
        if (!connection_->is_up())
            net_.room = 20;  // the next connection takes as much
    }
    std::vector<uint64_t> seconds;
    for (const uint64_t time_ns : net_.attempts)
        seconds.push_back((time_ns - start_ns) / ns_per_second);
    EXPECT_EQ(seconds, (std::vector<uint64_t>{0, 16, 33, 52, 75, 106, 153}));
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
