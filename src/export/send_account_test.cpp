#include "export/send_account.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace kestrel {
namespace {

constexpr const char* label = "export=\"tested-3\"";

flow_record record_of(uint32_t packets) {
    flow_record record{};
    record.packets = packets;
    return record;
}

uint64_t sum(const std::string& name, const std::string& reason = "") {
    return metrics_sum("kestrelexp_export_" + name, label + reason);
}

TEST(SendAccount, RecordsAreSentOrLostWithTheMessageThatTheyWaitFor) {
    const metrics_label_scope scope(label);
    send_account account("reason=\"odd\"");
    account.add_record(record_of(5));
    account.add_record(record_of(7));
    EXPECT_EQ(0u, sum("packets_total"));
    account.add_message(true, 100);
    account.add_record(record_of(11));
    account.add_message(false, 60);
    account.add_message(true, 20);  // without a record
    account.add_refused(record_of(13));
    EXPECT_EQ(2u, sum("records_total"));
    EXPECT_EQ(12u, sum("packets_total"));
    EXPECT_EQ(2u, sum("messages_total"));
    EXPECT_EQ(120u, sum("bytes_total"));
    EXPECT_EQ(1u, sum("failed_messages_total"));
    EXPECT_EQ(1u, sum("lost_records_total", ",reason=\"send\""));
    EXPECT_EQ(11u, sum("lost_packets_total", ",reason=\"send\""));
    EXPECT_EQ(1u, sum("lost_records_total", ",reason=\"odd\""));
    EXPECT_EQ(13u, sum("lost_packets_total", ",reason=\"odd\""));
}

// Nobody listens: the system takes every second message, and refuses the next one for it.
TEST(SendAccount, ACollectorIsBackWhenTwoMessagesInARowWereSent) {
    const metrics_label_scope scope("export=\"tested-4\"");
    send_account account("reason=\"odd\"");
    const auto is_up = [] { return metrics_sum("kestrelexp_export_up", "export=\"tested-4\""); };
    EXPECT_EQ(1u, is_up());
    account.add_message(true, 1);
    EXPECT_EQ(1u, is_up());
    for (int round = 0; round < 3; ++round) {
        account.add_message(false, 1);
        EXPECT_EQ(0u, is_up());
        account.add_message(true, 1);
        EXPECT_EQ(0u, is_up());
    }
    account.add_message(true, 1);
    EXPECT_EQ(1u, is_up());
}

TEST(SendAccount, AConnectionThatReplacesAnotherIsUpAtOnce) {
    const metrics_label_scope scope("export=\"tested-5\"");
    send_account account("reason=\"odd\"");
    const auto is_up = [] { return metrics_sum("kestrelexp_export_up", "export=\"tested-5\""); };
    account.add_message(false, 1);
    EXPECT_EQ(0u, is_up());
    account.add_reconnect();
    EXPECT_EQ(1u, is_up());
    account.add_message(true, 1);
    EXPECT_EQ(1u, is_up());
}

TEST(SendAccount, TheLastSuccessIsOfTheSystemsTimeInAReplayToo) {
    constexpr clock_source packets_of_2001 = {
        .wall_ns = [] { return 1'000'000'000 * ns_per_second; },
        .uptime_ns = [] { return ns_per_second; },
    };
    const metrics_label_scope scope("export=\"tested-6\"");
    send_account account("reason=\"odd\"");
    const auto before = static_cast<uint64_t>(time(nullptr));
    set_clock_source(&packets_of_2001);
    account.add_message(true, 1);
    set_clock_source(nullptr);
    const uint64_t told =
        metrics_sum("kestrelexp_export_last_success_timestamp_seconds", "export=\"tested-6\"");
    EXPECT_GE(told + 1, before);  // time() may be a tick ahead or late
    EXPECT_LE(told, static_cast<uint64_t>(time(nullptr)) + 1);
}

}  // namespace
}  // namespace kestrel
