// What the system says of this process, under the names that Prometheus has for it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace metrics {

struct process_reading {
    const char* name;
    const char* help;
    bool is_counter;
    double value;
};

// From the text of /proc/PID/stat, as proc(5) has it.
struct process_stat {
    double start_ticks;  // after the system's start
    double virtual_bytes;
    double resident_pages;
};
std::optional<process_stat> parse_process_stat(std::string_view text);

// What cannot be read is left out.
std::vector<process_reading> take_process_readings();

// When the process began, s since the epoch; nothing when it cannot be read.
std::optional<double> process_start_time();

}  // namespace metrics
