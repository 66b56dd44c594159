#include "export/send_account.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace kestrel
