// The accounts of the record loop: what it hands to each export and what it keeps back, and why;
// and the sum of all packets at the end of a run. Main thread only; counting allocates nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/counters.h"
#include "engine/run_configuration.h"
#include "kestrelexp/storage.h"

namespace kestrel {

enum class handed_metric { records, packets, rejected_records, rejected_packets, count };
enum class kept_back_metric {
    filtered_records,
    filtered_packets,
    unsampled_records,
    unsampled_packets,
    count
};
enum class filter_metric { records, packets, count };
enum class answer_metric { records, packets, refused_records, refused_packets, count };
enum class export_state_metric { is_up, count };

// What becomes of the records of one export.
class export_account {
  public:
    // entry: an export that is initialised.
    explicit export_account(const export_entry& entry);

    // filter: the position of the one that rejected the record, among the export's.
    void add_filtered(size_t filter, uint64_t packets) const {
        kept_back_.add(kept_back_metric::filtered_records);
        kept_back_.add(kept_back_metric::filtered_packets, packets);
        filters_[filter].add(filter_metric::records);
        filters_[filter].add(filter_metric::packets, packets);
    }
    void add_unsampled(uint64_t packets) const {
        kept_back_.add(kept_back_metric::unsampled_records);
        kept_back_.add(kept_back_metric::unsampled_packets, packets);
    }
    // The export was called and answered. Exports that count what they send tell it themselves.
    void add_answer(bool is_taken, uint64_t packets) const {
        if (keeps_own_account_)
            return;
        answers_.add(is_taken ? answer_metric::records : answer_metric::refused_records);
        answers_.add(is_taken ? answer_metric::packets : answer_metric::refused_packets, packets);
    }

  private:
    counter_block<kept_back_metric> kept_back_;
    std::vector<counter_block<filter_metric>> filters_;
    counter_block<answer_metric> answers_;
    bool keeps_own_account_;
};

class record_accounts {
  public:
    explicit record_accounts(const run_configuration& run);

    // A record that passed the global filters, on its way to every export.
    void add_handed(uint64_t packets) const {
        handed_.add(handed_metric::records);
        handed_.add(handed_metric::packets, packets);
    }
    // A record that a global filter did not let pass.
    void add_rejected(uint64_t packets) const {
        handed_.add(handed_metric::rejected_records);
        handed_.add(handed_metric::rejected_packets, packets);
    }
    const export_account& of_export(size_t position) const { return exports_[position]; }

  private:
    counter_block<handed_metric> handed_;
    std::vector<export_account> exports_;
};

// After an end without a flush: what the exports hold for messages that are not full yet goes
// nowhere, and is counted as lost to them. Exports hold it each in its own way, so it is what their
// sums lack.
void count_all_unflushed(const run_configuration& run);

// Prints every counter that has counted at level 0, then what is still in the program, then each
// difference in the sums of packets. Nothing more is read from the input and handed to the exports,
// so that the packets stand still. Does nothing when such messages are not shown.
void say_sum(const run_configuration& run);

}  // namespace kestrel
