// What the record loop decides by the clock, apart from the loop so that time can be driven by
// hand. Main thread only. The loop itself is main_record_loop in kestrelexp/program.h.
#pragma once

#include <cstdint>

namespace kestrel {

// Says when exports are to be flushed for want of traffic: at the second check after the last
// export, and at every check after that. Checks are made when no record is there, at most one per
// period.
class idle_watch {
  public:
    static constexpr uint64_t period_s = 5;

    explicit idle_watch(uint64_t now_s) : next_check_s_(now_s + period_s) {}

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

}  // namespace kestrel
