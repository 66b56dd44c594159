// What a protocol has to say of its own on a connection in the background.
#include "tests/support/connection_fixture.h"

namespace kestrel {
namespace {

class OwnMessages : public connection_fixture {};

class OwnDatagrams : public connection_fixture {
  protected:
    OwnDatagrams() : connection_fixture(IPPROTO_UDP) {}
};

TEST_F(OwnMessages, ComeAfterTheGreetingAndBeforeWhatWaits) {
    talk_.own = {"options.", "more."};
    offer("one");
    run_for(0.3);
    EXPECT_EQ(net_.stream, "templates.options.onemore.");
    EXPECT_EQ(talk_.own_sent, 2U);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

TEST_F(OwnMessages, AreNotAskedForBeforeTheConnectionIsUp) {
    talk_.own = {"options."};
    net_.connect_fault = ECONNREFUSED;
    run_for(100);
    EXPECT_EQ(talk_.own.size(), 1U);
    net_.connect_fault = no_fault;
    net_.look_fault = no_fault;
    run_for(100);
    EXPECT_EQ(net_.stream, "templates.options.");
}

TEST_F(OwnMessages, AreSentWholeBeforeAnythingElse) {
    come_up();
    talk_.own = {"options."};
    net_.room = 3;
    offer("one");
    run_for(4);  // nobody tells the fake worker of room: it looks every second
    EXPECT_EQ(net_.stream, "templates.options.one");
    EXPECT_EQ(net_.sent, (std::vector<std::string>{"opt", "ion", "s.", "one"}));
    EXPECT_EQ(talk_.own_sent, 1U);
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

TEST_F(OwnMessages, WaitForAMessageThatHasBegun) {
    come_up();
    net_.room = 2;
    net_.acknowledges = false;
    offer("one");
    run_for(0.1);
    talk_.own = {"options."};
    run_for(2);
    EXPECT_EQ(net_.stream, "templates.on");
    net_.acknowledges = true;
    net_.room = UINT64_MAX;
    run_for(2);
    EXPECT_EQ(net_.stream, "templates.oneoptions.");
}

TEST_F(OwnMessages, ThatAreCutOffAreLostWithTheirConnection) {
    come_up();
    talk_.own = {"options.", "again."};
    net_.room = 3;
    net_.acknowledges = false;
    offer("one");
    run_for(0.5);
    EXPECT_EQ(net_.stream, "templates.opt");
    net_.acknowledges = true;
    net_.room = UINT64_MAX;
    net_.look_fault = ECONNRESET;
    run_for(3);
    EXPECT_EQ(talk_.own_lost, 1U);
    EXPECT_EQ(talk_.own_sent, 1U);
    EXPECT_EQ(net_.stream, "templates.again.one");
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

TEST_F(OwnMessages, ThatAreNeverAcknowledgedShowAStall) {
    come_up();
    net_.acknowledges = false;
    talk_.own = {"options."};
    run_for(14);
    EXPECT_TRUE(connection_->is_up());
    for (int second = 0; second < 2; ++second) {
        talk_.own.emplace_back("");  // asked again, as for what comes every second
        run_for(1);
    }
    EXPECT_FALSE(connection_->is_up());
}

TEST_F(OwnDatagrams, ShowThatTheOneBeforeArrived) {
    come_up();
    offer("one");
    run_for(0.01);
    EXPECT_EQ(count(OUTLET_SENT), 0U);
    talk_.own = {"options."};
    (void)round();
    EXPECT_EQ(count(OUTLET_SENT), 1U);
    EXPECT_EQ(net_.stream, "templates.oneoptions.");
}

TEST_F(OwnDatagrams, ThatAreRefusedCostNoOther) {
    come_up();
    talk_.own = {"options."};
    (void)round();
    offer("one");
    net_.look_fault = ECONNREFUSED;  // the answer to the options
    run_for(3);
    EXPECT_EQ(net_.stream, "templates.one");
    EXPECT_EQ(count(OUTLET_SENT), 1U);
}

TEST_F(OwnDatagrams, ThatAreTooLongAreLostAlone) {
    come_up();
    talk_.own = {"options."};
    net_.send_fault = EMSGSIZE;
    (void)round();
    EXPECT_TRUE(connection_->is_up());
    EXPECT_EQ(talk_.own_lost, 1U);
    offer("one");
    run_for(1);
    EXPECT_EQ(net_.stream, "templates.one");
}

}  // namespace
}  // namespace kestrel
