// What the worker of the export's outlet does: messages into files, and from one file to the next.
// Messages are held until the disk has them, and written again when it turns out that it has not.
// Never gives up: whatever cannot be written is tried again every second.
#pragma once

#include <kestrelexp/outlet.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "file_account.h"
#include "output_file.h"
#include "settings.h"

namespace ipfix_file {

constexpr uint64_t ns_per_second = 1'000'000'000;

struct moment {
    uint64_t uptime_ns;  // of the system
    uint64_t wall_s;     // what the records are timed by
    bool is_replay;      // wall_s stands still between packets, and tells of no silence
};

class writer {
  public:
    // Messages wait for so long until the disk is asked to keep them; sooner when there are many.
    static constexpr uint64_t sync_interval_ns = ns_per_second;
    static constexpr uint64_t pause_ns = ns_per_second;  // after a failure
    // After the end of an interval, for messages that were closed within it.
    static constexpr uint64_t grace_s = 2;

    // opening: the message with the templates. All are borrowed for good.
    writer(const settings& wanted, const std::vector<uint8_t>& opening,
           const file_account& account);

    // See outlet_tend_function, outlet_deliver_function, outlet_end_function.
    bool tend(outlet* queue, bool is_closing, const moment& now, outlet_wait& wait);
    outlet_answer deliver(outlet* queue, outlet_message& message);
    void end(outlet* queue, const moment& now);

    // What is offered cannot be written at the moment. Any thread.
    bool is_failing() const { return is_failing_.load(std::memory_order_relaxed); }

  private:
    bool open_file(uint64_t time_s, uint64_t first_record);
    bool belongs_to_next(const outlet_message& message, uint64_t time_s) const;
    bool is_sync_due(const outlet* queue) const;
    bool is_all_written(const outlet* queue) const;
    bool is_interval_over(const outlet* queue) const;
    bool sync(outlet* queue);
    void write_again(outlet* queue);
    bool complete(outlet* queue);
    void fail(int fault);
    void recover();
    int32_t next_look_ms() const;

    const settings& wanted_;
    const std::vector<uint8_t>& opening_;
    const file_account& account_;
    const uint64_t most_unsynced_;  // bytes

    output_file file_;
    moment now_ = {};
    bool is_closing_ = false;
    bool has_opened_ = false;  // a file, ever

    // Of the file that is open
    uint64_t interval_ = 0;        // its number since the epoch, where the time ends files
    uint64_t first_record_ = 0;    // number of its first message
    uint64_t records_ = 0;         // written
    uint64_t synced_records_ = 0;  // of these
    uint64_t synced_length_ = 0;   // bytes that the disk has
    uint64_t unsynced_ = 0;        // bytes of messages after these
    uint64_t unsynced_since_ns_ = 0;

    std::atomic<bool> is_failing_ = false;
    bool has_written_since_ = false;  // the last failure
    uint64_t failing_since_ns_ = 0;
    uint64_t retry_ns_ = 0;  // not before
};

}  // namespace ipfix_file
