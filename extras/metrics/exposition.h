// All metrics as the text that Prometheus scrapes (exposition format 0.0.4).
#pragma once

#include <string>
#include <vector>

#include "process_readings.h"
#include "readings.h"

namespace metrics {

inline constexpr const char* exposition_type = "text/plain; version=0.0.4; charset=utf-8";

// Counters in microseconds are shown in seconds, the base unit, and named so.
std::string exposition_text(const reading_list& list, const std::vector<process_reading>& process);

}  // namespace metrics
