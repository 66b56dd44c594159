// What an exporter counts of its own: records and packets sent, those lost and why, messages and
// bytes, and whether its collector is there. Made while the exporter is initialised; counts on the
// thread of the record loop.
#pragma once

#include <cstdint>
#include <utility>

#include "base/clock.h"
#include "base/counters.h"
#include "kestrelexp/record.h"

namespace kestrel {

enum class send_metric {
    records,
    packets,
    refused_records,
    refused_packets,
    unsent_records,
    unsent_packets,
    messages,
    bytes,
    failures,
    reconnects,
    is_up,
    last_success_s,
    count
};

class send_account {
  public:
    // refusal: the label of what the exporter does not take, such as reason="ip_version".
    explicit send_account(const char* refusal);

    void add_refused(const flow_record& record) const {
        block_.add(send_metric::refused_records);
        block_.add(send_metric::refused_packets, record.packets);
    }
    // The record waits for the next message.
    void add_record(const flow_record& record) {
        pending_records_ += 1;
        pending_packets_ += record.packets;
    }
    // A message has left with the records that waited, or was lost with them.
    void add_message(bool is_sent, uint64_t bytes) {
        block_.add(is_sent ? send_metric::messages : send_metric::failures);
        block_.add(send_metric::bytes, is_sent ? bytes : 0);
        block_.add(is_sent ? send_metric::records : send_metric::unsent_records,
                   std::exchange(pending_records_, 0));
        block_.add(is_sent ? send_metric::packets : send_metric::unsent_packets,
                   std::exchange(pending_packets_, 0));
        block_.set(send_metric::is_up, is_sent && was_sent_ ? 1 : 0);
        was_sent_ = is_sent;
        if (is_sent)
            block_.set(send_metric::last_success_s, system_wall_s());
    }
    // The collector takes nothing of the message that is being sent.
    void note_stall() const { block_.set(send_metric::is_up, 0); }
    // A connection that broke was replaced.
    void add_reconnect() {
        block_.add(send_metric::reconnects);
        block_.set(send_metric::is_up, 1);
        was_sent_ = true;
    }

    // For an export whose messages an outlet sends and counts (see collector_connection.h):
    struct contents {
        uint32_t records;
        uint64_t packets;
    };
    // What has waited for the message, which takes it away.
    contents take_pending() {
        return {static_cast<uint32_t>(std::exchange(pending_records_, 0)),
                std::exchange(pending_packets_, 0)};
    }
    // By the outlet's worker, from its start on, so that these numbers have one writer.
    void set_up(bool is_up) const { block_.set(send_metric::is_up, is_up ? 1 : 0); }
    // Any thread.
    bool is_up() const { return block_.value(send_metric::is_up) != 0; }
    void count_reconnect() const { block_.add(send_metric::reconnects); }
    void note_success() const { block_.set(send_metric::last_success_s, system_wall_s()); }

  private:
    counter_block<send_metric> block_;
    uint64_t pending_records_ = 0;
    uint64_t pending_packets_ = 0;
    // Of the last message. With UDP a failure tells that nobody listened to the message before, so
    // one that the system takes after it shows nothing yet.
    bool was_sent_ = true;
};

}  // namespace kestrel
