// The connection of an export in the background over UDP, with and without templates.
#include <poll.h>

#include "tests/support/connection_fixture.h"

namespace kestrel {
namespace {

class Datagrams : public connection_fixture {
  protected:
    Datagrams() : connection_fixture(IPPROTO_UDP) {}
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

TEST_F(Datagrams, WhoIsRefusedTriesTheOtherFamilyNext) {
    to_.ip = 46;
    net_.refuses = true;
    run_for(3.5);
    EXPECT_EQ(net_.families, (std::vector<int>{AF_INET, AF_INET6, AF_INET}));
}

TEST_F(Datagrams, ANameWithoutTheOtherFamilyIsTriedAgainAtOnce) {
    to_.ip = 64;
    net_.missing_family = AF_INET;
    net_.refuses = true;
    offer("one");
    run_for(0.5);
    net_.refuses = false;
    run_for(1);
    EXPECT_EQ(net_.families, (std::vector<int>{AF_INET6, AF_INET, AF_INET6}));
    EXPECT_EQ(net_.stream, "templates.one");
}

TEST_F(Datagrams, AnOutageLaterBeginsWithTheFirstFamily) {
    to_.ip = 46;
    come_up();
    net_.look_fault = ECONNREFUSED;
    run_for(2);
    EXPECT_TRUE(connection_->is_up());
    EXPECT_EQ(net_.families, (std::vector<int>{AF_INET, AF_INET}));
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

TEST_F(Datagrams, AFirewallsAnswerIsARefusalToo) {
    come_up();
    offer("one");
    run_for(0.01);
    net_.look_fault = EHOSTUNREACH;
    run_for(0.3);
    EXPECT_EQ(count(OUTLET_UNACKNOWLEDGED), 1U);
    EXPECT_EQ(count(OUTLET_SENT), 0U);
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

TEST_F(Datagrams, OneThatFindsNoRoomWaitsForIt) {
    come_up();
    run_for(100);
    net_.send_fault = EAGAIN;
    offer("one");
    offer("two");
    EXPECT_EQ(round().end, outlet_round::later);
    const outlet_round waiting = round();
    EXPECT_EQ(waiting.end, outlet_round::blocked);
    EXPECT_NE(waiting.wait.events & POLLOUT, 0);
    run_for(1);
    EXPECT_EQ(net_.stream, "templates.onetwo");
    EXPECT_TRUE(connection_->is_up());
    EXPECT_EQ(count(OUTLET_SENT), 2U);
}

TEST_F(Datagrams, FifteenSecondsWithoutRoomAreAnOutage) {
    come_up();
    run_for(100);
    net_.room = 0;
    offer("one");
    run_for(14.9);
    EXPECT_TRUE(connection_->is_up());
    run_for(1.2);
    EXPECT_FALSE(connection_->is_up());
    EXPECT_EQ(queued(), 1U);
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
class Ungreeted : public connection_fixture {
  protected:
    Ungreeted() : connection_fixture(IPPROTO_UDP) { talk_.words.clear(); }
};

TEST_F(Ungreeted, AFirstDatagramThatAFirewallRefusesIsSentAgain) {
    offer("one");
    run_for(0.01);
    EXPECT_EQ(net_.stream, "one");
    net_.look_fault = EHOSTUNREACH;
    run_for(0.1);
    EXPECT_EQ(count(OUTLET_SENT), 0U);
    EXPECT_EQ(queued(), 1U);
    run_for(2);
    EXPECT_EQ(net_.sent.size(), 2U);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

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

}  // namespace
}  // namespace kestrel
