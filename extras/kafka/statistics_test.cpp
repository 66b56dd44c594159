#include "statistics.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

std::map<std::string, uint64_t> readings() {
    std::map<std::string, uint64_t> found;
    metrics_snapshot(
        [](void* context, const metric_sample* sample) {
            auto& all = *static_cast<std::map<std::string, uint64_t>*>(context);
            all[std::string(sample->name) + "{" + sample->labels + "}"] = sample->value;
        },
        &found);
    return found;
}

// Each test has brokers of its own, since metrics stay for the whole run.
std::string broker(int id, const char* state, const std::string& rest) {
    return "\"b" + std::to_string(id) + "\":{\"nodeid\":" + std::to_string(id) + ",\"state\":\"" +
           state + "\"," + rest + "}";
}

std::string all(const std::string& brokers, const char* queue = "\"msg_cnt\":3,\"msg_size\":70") {
    return std::string("{") + queue + ",\"brokers\":{" + brokers + "}}";
}

TEST(Statistics, ShowsTheQueueAndEachBroker) {
    kafka::statistics self;
    EXPECT_TRUE(self.take(all(
        broker(1, "UP", R"("txerrs":2,"txretries":3,"req_timeouts":4,"rtt":{"cnt":5,"avg":1500})") +
        "," + broker(2, "CONNECT", R"("txerrs":0,"rtt":{"cnt":0,"avg":0})"))));
    auto found = readings();
    EXPECT_EQ(found["kestrelexp_kafka_queued_messages{}"], 3U);
    EXPECT_EQ(found["kestrelexp_kafka_queued_bytes{}"], 70U);
    EXPECT_EQ(found["kestrelexp_kafka_broker_up{broker=\"1\"}"], 1U);
    EXPECT_EQ(found["kestrelexp_kafka_broker_up{broker=\"2\"}"], 0U);
    EXPECT_EQ(found["kestrelexp_kafka_broker_round_trip_microseconds{broker=\"1\"}"], 1500U);
    EXPECT_EQ(found["kestrelexp_kafka_broker_failed_requests_total{broker=\"1\"}"], 2U);
    EXPECT_EQ(found["kestrelexp_kafka_broker_retried_requests_total{broker=\"1\"}"], 3U);
    EXPECT_EQ(found["kestrelexp_kafka_broker_late_requests_total{broker=\"1\"}"], 4U);
}

TEST(Statistics, KeepsTheLastRoundTripAndCountsOnWithANewProducer) {
    kafka::statistics self;
    const char* const errors = "kestrelexp_kafka_broker_failed_requests_total{broker=\"11\"}";
    (void)self.take(all(broker(11, "UP", R"("txerrs":5,"rtt":{"cnt":1,"avg":900})")));
    (void)self.take(all(broker(11, "UP", R"("txerrs":7,"rtt":{"cnt":0,"avg":0})")));
    EXPECT_EQ(readings()["kestrelexp_kafka_broker_round_trip_microseconds{broker=\"11\"}"], 900U);
    EXPECT_EQ(readings()[errors], 7U);
    self.restart();
    (void)self.take(all(broker(11, "UP", R"("txerrs":1)")));
    EXPECT_EQ(readings()[errors], 8U);
}

TEST(Statistics, IsUpWithABrokerThatHasNoNumberYet) {
    kafka::statistics self;
    EXPECT_TRUE(self.take(all(broker(-1, "UP", R"("txerrs":1)"))));
    EXPECT_FALSE(self.take(all(broker(-1, "DOWN", R"("txerrs":1)"))));
    EXPECT_EQ(readings().count("kestrelexp_kafka_broker_up{broker=\"-1\"}"), 0U);
}

TEST(Statistics, AreNotMovedByOtherTexts) {
    kafka::statistics self;
    for (const char* const text :
         {"", "{", "[]", "3", "null", R"({"msg_cnt":"x","brokers":[1,2]})",
          R"({"brokers":{"a":3,"b":null,"c":{"nodeid":"1","state":3,"rtt":[]}}})",
          R"({"brokers":{"d":{"nodeid":21,"txerrs":-5,"rtt":{"cnt":1.5}}}})"})
        EXPECT_FALSE(self.take(text)) << text;
    EXPECT_EQ(readings()["kestrelexp_kafka_broker_failed_requests_total{broker=\"21\"}"], 0U);
}

}  // namespace
