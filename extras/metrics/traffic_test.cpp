#include "traffic.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

using metrics::hitter_key;
using metrics::top_of_minute;
using metrics::traffic_bucket;
using metrics::traffic_meter;
using metrics::traffic_minute;

constexpr uint64_t seed = 11;

flow_record flow4(uint32_t source, uint8_t protocol, uint16_t source_port, uint16_t port,
                  uint32_t bytes) {
    flow_record record{};
    record.packets = 2;
    record.bytes = bytes;
    record.l3protocol = 4;
    record.ipv4.srcipv4 = source;
    record.l4protocol = protocol;
    record.srcport = source_port;
    record.dstport = port;
    return record;
}

TEST(Traffic, AnIpv4SourceIsAMappedAddress) {
    const hitter_key expected{0, 0x0000'FFFF'C000'0201};
    EXPECT_EQ(metrics::source_key(flow4(0xC0000201, 6, 1, 2, 3)), expected);
}

TEST(Traffic, AnIpv6SourceIsTheNumberOfItsWireBytes) {
    flow_record record{};
    record.l3protocol = 6;
    // 2001:db8::1, in reverse as records have it
    record.ipv6.srcipv6[15] = 0x20;
    record.ipv6.srcipv6[14] = 0x01;
    record.ipv6.srcipv6[13] = 0x0d;
    record.ipv6.srcipv6[12] = 0xb8;
    record.ipv6.srcipv6[0] = 0x01;
    const hitter_key expected{0x2001'0db8'0000'0000, 1};
    EXPECT_EQ(metrics::source_key(record), expected);
}

TEST(Traffic, TheServiceIsTheLowerPort) {
    const hitter_key expected{6, 443};
    EXPECT_EQ(metrics::service_key(flow4(1, 6, 50000, 443, 1)), expected);
    EXPECT_EQ(metrics::service_key(flow4(1, 6, 443, 50000, 1)), expected);
}

TEST(Traffic, OnlyTransportsWithPortsCountAsPorts) {
    const auto bucket = std::make_unique<traffic_bucket>(seed);
    bucket->add(flow4(1, 1, 8, 0, 100));    // ICMP
    bucket->add(flow4(1, 47, 8, 9, 100));   // GRE
    bucket->add(flow4(1, 6, 80, 5000, 1));  // TCP, UDP, SCTP
    bucket->add(flow4(1, 17, 53, 5000, 2));
    bucket->add(flow4(1, 132, 90, 5000, 4));
    EXPECT_EQ(bucket->ports.list().size(), 3U);
    EXPECT_EQ(bucket->protocols[1], 100U);
    EXPECT_EQ(bucket->protocols[47], 100U);
    EXPECT_EQ(bucket->protocols[132], 4U);
    EXPECT_EQ(bucket->totals.records, 5U);
    EXPECT_EQ(bucket->totals.packets, 10U);
    EXPECT_EQ(bucket->totals.bytes, 207U);
}

TEST(Traffic, WhatIsTakenIsNotThereAgain) {
    const auto meter = std::make_unique<traffic_meter>(seed);
    meter->add(flow4(1, 6, 80, 5000, 10));
    EXPECT_EQ(meter->take().totals.bytes, 10U);
    EXPECT_EQ(meter->take().totals.bytes, 0U);
    meter->add(flow4(1, 6, 80, 5000, 20));
    meter->add(flow4(2, 6, 80, 5000, 30));
    const traffic_bucket& bucket = meter->take();
    EXPECT_EQ(bucket.totals.bytes, 50U);
    EXPECT_EQ(bucket.talkers.list().size(), 2U);
}

TEST(Traffic, NothingIsLostBetweenTheThreads) {
    constexpr uint64_t flows = 200'000;
    const auto meter = std::make_unique<traffic_meter>(seed);
    std::atomic<bool> is_over = false;
    std::thread loop([&] {
        for (uint64_t n = 0; n < flows; ++n)
            meter->add(flow4(static_cast<uint32_t>(n % 100), 17, 53, 5000, 7));
        is_over.store(true, std::memory_order_release);
    });
    uint64_t records = 0, bytes = 0, by_talker = 0, takes = 0;
    for (bool is_last = false; !is_last; ++takes) {
        is_last = is_over.load(std::memory_order_acquire);
        const traffic_bucket& bucket = meter->take();
        records += bucket.totals.records;
        bytes += bucket.totals.bytes;
        for (const metrics::hitter& one : bucket.talkers.list())
            by_talker += one.weight;
    }
    loop.join();
    EXPECT_EQ(records, flows);
    EXPECT_EQ(bytes, 7 * flows);
    EXPECT_EQ(by_talker, 7 * flows);
    EXPECT_GT(takes, 1U);
}

TEST(Traffic, TheMinuteHasTheGreatestFirst) {
    const auto bucket = std::make_unique<traffic_bucket>(seed);
    for (uint16_t n = 1; n <= 20; ++n)
        bucket->add(flow4(n, 6, static_cast<uint16_t>(1000 + n), 60000, 100U * n));
    traffic_minute minute;
    minute.add_second(*bucket);
    minute.add_second(*bucket);
    const top_of_minute& top = minute.top();
    EXPECT_EQ(top.seconds, 2U);
    EXPECT_EQ(top.totals.bytes, 2U * 100 * 210);
    ASSERT_EQ(top.talkers.entries.size(), 10U);
    EXPECT_EQ(top.talkers.entries[0].weight, 4000U);
    EXPECT_EQ(top.talkers.entries[0].key.low, 0x0000'FFFF'0000'0014U);
    EXPECT_EQ(top.talkers.entries[9].weight, 2200U);
    EXPECT_EQ(top.ports.entries[0].key.low, 1020U);
    ASSERT_EQ(top.protocols.entries.size(), 1U);
    EXPECT_EQ(top.protocols.entries[0].key.low, 6U);
    EXPECT_EQ(top.protocols.entries[0].weight, 42'000U);
}

TEST(Traffic, TheMinuteForgetsWhatIsOlder) {
    const auto bucket = std::make_unique<traffic_bucket>(seed);
    traffic_minute minute;
    EXPECT_EQ(minute.top().seconds, 0U);
    bucket->add(flow4(1, 6, 80, 60000, 1000));
    minute.add_second(*bucket);
    bucket->clear();
    for (int second = 1; second < 60; ++second)
        minute.add_second(*bucket);
    EXPECT_EQ(minute.top().totals.bytes, 1000U);
    EXPECT_EQ(minute.top().seconds, 60U);
    minute.add_second(*bucket);
    EXPECT_EQ(minute.top().totals.bytes, 0U);
    EXPECT_TRUE(minute.top().talkers.entries.empty());
    EXPECT_EQ(minute.top().seconds, 60U);
}

TEST(Traffic, TheErrorOfTheMinuteIsTheSumOfThoseOfItsSeconds) {
    const auto bucket = std::make_unique<traffic_bucket>(seed);
    for (uint32_t n = 0; n < 512; ++n)  // the last one cuts the table back, by one byte each
        bucket->add(flow4(n, 6, 80, 60000, 1));
    traffic_minute minute;
    minute.add_second(*bucket);
    EXPECT_EQ(minute.top().talkers.error, 1U);
    minute.add_second(*bucket);
    EXPECT_EQ(minute.top().talkers.error, 2U);
    EXPECT_EQ(minute.top().ports.error, 0U);
    EXPECT_EQ(minute.top().ports.entries[0].weight, 1024U);
}

}  // namespace
