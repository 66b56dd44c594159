// Decides what the service manager is to be told: that the program is ready, once, and then that it
// lives, but only while both of its ends do: the record loop, and the thread that reads the input.
// Sends nothing itself and reads no clock. Housekeeper thread only.
#pragma once

#include <cstdint>

namespace kestrel {

enum class service_word : uint8_t { none, is_ready, is_alive };

class service_watch {
  public:
    // watchdog_ns: how often the manager wants a sign of life; 0: never. It gets two for one.
    explicit service_watch(uint64_t watchdog_ns) : period_ns_(watchdog_ns / 2) {}

    // Another round, at uptime_ns: who has shown a sign of life since the one before?
    service_word round(bool has_reader_shown, bool has_record_loop_shown, uint64_t uptime_ns) {
        is_reader_alive_ |= has_reader_shown;
        is_record_loop_alive_ |= has_record_loop_shown;
        if (!is_reader_alive_ || !is_record_loop_alive_ || !is_due(uptime_ns))
            return service_word::none;
        is_reader_alive_ = is_record_loop_alive_ = false;
        next_ns_ = uptime_ns + period_ns_;
        const bool was_ready = is_ready_;
        is_ready_ = true;
        return was_ready ? service_word::is_alive : service_word::is_ready;
    }

  private:
    bool is_due(uint64_t uptime_ns) const {
        return !is_ready_ || (period_ns_ != 0 && uptime_ns >= next_ns_);
    }

    uint64_t period_ns_;
    uint64_t next_ns_ = 0;
    bool is_ready_ = false;
    // Since the last word.
    bool is_reader_alive_ = false;
    bool is_record_loop_alive_ = false;
};

}  // namespace kestrel
