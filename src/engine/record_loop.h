// The record loop of a replay, and what both record loops decide by the clock, apart from them so
// that time can be driven by hand. Main thread only. The loop of live inputs is main_record_loop in
// kestrelexp/program.h.
#pragma once

#include <cstdint>

#include "kestrelexp/program.h"

namespace kestrel {

// Says when exports are to be flushed for want of traffic: at the second check after the last
// export, and at every check after that. Checks are made when no record is there, at most one per
// period.
class idle_watch {
  public:
    static constexpr uint64_t period_s = 5;

    explicit idle_watch(uint64_t now_s) : next_check_s_(now_s + period_s) {}

    // A check is made in a later second than this.
    uint64_t next_check_s() const { return next_check_s_; }

    void note_export() { is_idle_ = false; }

    bool is_flush_due(uint64_t now_s) {
        if (now_s <= next_check_s_)
            return false;
        next_check_s_ = now_s + period_s;
        const bool was_idle = is_idle_;
        is_idle_ = true;
        return was_idle;
    }

  private:
    uint64_t next_check_s_;
    bool is_idle_ = false;
};

// The record loop of a replay (see replay.h): main_record_loop on packet time. Every slot of the
// storage has a stamp after its record_size bytes; after the last flow it tells what was read,
// flushes the exports and ends the program with status 0, or 1 when the input broke off. An
// interrupted replay ends like one whose input has ended, totals and all.
int replay_record_loop(temporal_storage* storage, unsigned record_size,
                       run_configuration* configuration);

}  // namespace kestrel
