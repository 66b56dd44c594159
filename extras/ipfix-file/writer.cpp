#include "writer.h"

#include <kestrelexp/service.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "file_name.h"
#include "message_builder.h"

namespace ipfix_file {
namespace {

constexpr uint64_t ns_per_ms = 1'000'000;
constexpr int32_t longest_wait_ms = 60'000;

int32_t ms_until(uint64_t time_ns, uint64_t now_ns) {
    if (time_ns <= now_ns)
        return 0;
    const uint64_t ms = (time_ns - now_ns) / ns_per_ms + 1;
    return static_cast<int32_t>(std::min(ms, uint64_t{longest_wait_ms}));
}

}  // namespace

writer::writer(const settings& wanted, const std::vector<uint8_t>& opening,
               const file_account& account)
    : wanted_(wanted),
      opening_(opening),
      account_(account),
      most_unsynced_(wanted.queue_bytes / 4),
      file_(wanted.directory) {}

bool writer::tend(outlet* queue, bool is_closing, const moment& now, outlet_wait& wait) {
    now_ = now;
    if (is_closing && !is_closing_)
        retry_ns_ = 0;  // the program ends: once more at once
    is_closing_ = is_closing;
    const bool is_ready = now.uptime_ns >= retry_ns_ && (!is_sync_due(queue) || sync(queue));
    if (is_ready && is_interval_over(queue))
        (void)complete(queue);  // without messages that wait for the disk nothing can fail
    wait.timeout_ms = is_ready ? next_look_ms() : ms_until(retry_ns_, now.uptime_ns);
    return is_ready;
}

// At the end of the program once all is written, as each time costs.
bool writer::is_sync_due(const outlet* queue) const {
    if (unsynced_ == 0)
        return false;
    return (is_closing_ && is_all_written(queue)) || unsynced_ >= most_unsynced_ ||
           (is_failing() && has_written_since_) ||
           now_.uptime_ns >= unsynced_since_ns_ + sync_interval_ns;
}

bool writer::is_all_written(const outlet* queue) const {
    outlet_counts counts;
    outlet_read_counts(queue, &counts);
    return counts.queued.bytes <= unsynced_;
}

// Only in a silence: else the next message ends the file.
bool writer::is_interval_over(const outlet* queue) const {
    if (!file_.is_open() || wanted_.rotate_s == 0 || now_.is_replay || unsynced_ > 0 ||
        now_.wall_s < (interval_ + 1) * wanted_.rotate_s + grace_s)
        return false;
    outlet_counts counts;
    outlet_read_counts(queue, &counts);
    return counts.queued.messages == 0;
}

int32_t writer::next_look_ms() const {
    if (unsynced_ > 0)
        return ms_until(unsynced_since_ns_ + sync_interval_ns, now_.uptime_ns);
    if (!file_.is_open() || wanted_.rotate_s == 0 || now_.is_replay)
        return -1;
    const uint64_t end_s = (interval_ + 1) * wanted_.rotate_s + grace_s;
    return ms_until((end_s - std::min(end_s, now_.wall_s)) * ns_per_second, 0) + 1;
}

bool writer::belongs_to_next(const outlet_message& message, uint64_t time_s) const {
    if (wanted_.rotate_s != 0 && time_s / wanted_.rotate_s != interval_)
        return true;
    return wanted_.rotate_bytes != 0 && records_ > 0 &&
           file_.length() + message.length > wanted_.rotate_bytes;
}

bool writer::open_file(uint64_t time_s, uint64_t first_record) {
    std::vector<uint8_t> opening = opening_;
    store_be32(opening.data() + export_time_at, static_cast<uint32_t>(time_s));
    int fault = file_.open(expand_name(wanted_.pattern, time_s));
    if (fault == 0 && (fault = file_.append(opening)) != 0)
        file_.remove();
    if (fault != 0) {
        fail(fault);
        return false;
    }
    has_opened_ = true;
    interval_ = wanted_.rotate_s == 0 ? 0 : time_s / wanted_.rotate_s;
    first_record_ = first_record;
    records_ = synced_records_ = 0;
    synced_length_ = unsynced_ = 0;
    return true;
}

outlet_answer writer::deliver(outlet* queue, outlet_message& message) {
    auto* const bytes = static_cast<uint8_t*>(message.data);
    const uint64_t time_s = load_be32(bytes + export_time_at);
    if (file_.is_open() && belongs_to_next(message, time_s) && !complete(queue))
        return OUTLET_LATER;
    if (!file_.is_open() && !open_file(time_s, message.number))
        return OUTLET_LATER;
    // Records that were dropped on the way here have numbers too: the file shows a gap.
    store_be32(bytes + sequence_at, static_cast<uint32_t>(message.number - first_record_));
    if (const int fault = file_.append({bytes, message.length}); fault != 0) {
        if (file_.is_lost())
            write_again(queue);
        fail(fault);
        return OUTLET_LATER;
    }
    records_ += message.records;
    if (unsynced_ == 0)
        unsynced_since_ns_ = now_.uptime_ns;
    unsynced_ += message.length;
    has_written_since_ = true;
    return OUTLET_KEEP;
}

// Ends the messages that are held: the disk has them, or they are written once more.
bool writer::sync(outlet* queue) {
    if (unsynced_ == 0)
        return true;
    if (const int fault = file_.sync(); fault != 0) {
        write_again(queue);
        fail(fault);
        return false;
    }
    while (outlet_held(queue) != nullptr)
        outlet_settle(queue, OUTLET_SENT);
    synced_length_ = file_.length();
    synced_records_ = records_;
    unsynced_ = 0;
    account_.note_success();
    recover();
    return true;
}

// The file goes back to what the disk has. One of which it has nothing is begun anew; one that
// cannot be cut back stays aside, and the next file has these messages as well.
void writer::write_again(outlet* queue) {
    if (synced_length_ == 0 && !file_.is_lost())
        file_.remove();
    else if (file_.is_lost() || file_.cut_back(synced_length_) != 0)
        file_.abandon();
    records_ = synced_records_;
    unsynced_ = 0;
    outlet_return(queue);
}

// Returns false when the file cannot be left yet.
bool writer::complete(outlet* queue) {
    if (!sync(queue))
        return false;
    const std::string written = file_.path();
    if (const int fault = file_.complete(); fault != 0) {
        verbose_msg(-1, "Export ipfix-file: %s is whole but cannot be renamed (%s)",
                    written.c_str(), std::strerror(fault));
        return true;
    }
    account_.count_file();
    verbose_msg(0, "Export ipfix-file: %s is complete, %lu records", file_.path().c_str(),
                records_);
    return true;
}

void writer::fail(int fault) {
    account_.note_failure();
    retry_ns_ = now_.uptime_ns + pause_ns;
    has_written_since_ = false;
    if (is_failing_.exchange(true, std::memory_order_relaxed))
        return;
    failing_since_ns_ = now_.uptime_ns;
    verbose_msg(-1, "Export ipfix-file: %s cannot be written (%s), trying again every second",
                file_.path().c_str(), std::strerror(fault));
}

// What was written before a failure may reach the disk after it: that is no recovery.
void writer::recover() {
    if (!is_failing() || !has_written_since_)
        return;
    is_failing_.store(false, std::memory_order_relaxed);
    verbose_msg(0, "Export ipfix-file: %s is written again after %lu s", file_.path().c_str(),
                (now_.uptime_ns - failing_since_ns_) / ns_per_second);
}

// A run without flows has a file too.
void writer::end(outlet* queue, const moment& now) {
    now_ = now;
    if (!has_opened_ && !is_failing())
        (void)open_file(now.wall_s, 0);  // a failure was said
    if (file_.is_open() && !complete(queue) && file_.is_open())
        (void)complete(queue);  // without what the disk did not take
}

}  // namespace ipfix_file
