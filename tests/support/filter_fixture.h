// Rule texts as filters, and flows to put before them.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "filter/filter_rules.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/service.h"
#include "tests/support/text_file.h"

namespace kestrel_test {

struct loaded_filter {
    kestrel::filter_owner rules;
    std::string messages;
};

inline loaded_filter load_rules(const std::string& text, int32_t level = -1) {
    const text_file file(text);
    const int32_t usual_level = std::exchange(verbose_level, level);
    testing::internal::CaptureStderr();
    kestrel::filter_owner rules = kestrel::filter_load(file.path());
    verbose_level = usual_level;
    return {std::move(rules), testing::internal::GetCapturedStderr()};
}

// The filter of a text that has no fault.
inline kestrel::filter_owner compile(const std::string& text) {
    loaded_filter result = load_rules(text);
    EXPECT_EQ("", result.messages);
    EXPECT_NE(nullptr, result.rules);
    return std::move(result.rules);
}

inline uint32_t ipv4(const char* text) {
    in_addr address;
    EXPECT_EQ(1, inet_pton(AF_INET, text, &address)) << text;
    return ntohl(address.s_addr);
}

// The 16 bytes as a record has them: in reverse order.
inline void store_ipv6(uint8_t* to, const char* text) {
    uint8_t wire[16];
    EXPECT_EQ(1, inet_pton(AF_INET6, text, wire)) << text;
    for (unsigned i = 0; i < 16; ++i)
        to[i] = wire[15 - i];
}

// A UDP flow with ports 1234 -> 80, one packet of 1000 bytes, interface 9, of the family that its
// addresses have.
inline flow_record flow(const char* source, const char* destination) {
    flow_record record = {};
    if (std::strchr(source, ':')) {
        record.l3protocol = 6;
        store_ipv6(record.ipv6.srcipv6, source);
        store_ipv6(record.ipv6.dstipv6, destination);
    } else {
        record.l3protocol = 4;
        record.ipv4.srcipv4 = ipv4(source);
        record.ipv4.dstipv4 = ipv4(destination);
    }
    record.l4protocol = 17;
    record.srcport = 1234;
    record.dstport = 80;
    record.inputsnmp = 9;
    record.packets = 1;
    record.bytes = 1000;
    return record;
}

inline bool keeps(const kestrel::filter_owner& rules, flow_record record) {
    const int32_t verdict = filter_test(rules.get(), &record);
    EXPECT_TRUE(verdict == 0 || verdict == 1) << verdict;
    return verdict == 0;
}

inline bool keeps(const kestrel::filter_owner& rules, const char* source, const char* destination) {
    return keeps(rules, flow(source, destination));
}

}  // namespace kestrel_test
