// Names of files: the time in them, and the number that keeps two apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ipfix_file {

// Bytes of a name with its time, so that a number and ".part" still fit into the 255 of the system.
constexpr size_t longest_name = 230;

// The name with the fields of strftime(3) for a time in UTC (s since the epoch); empty where that
// has none, or is longer than 255 bytes.
std::string expand_name(const std::string& pattern, uint64_t time_s);

// The name with a number before its last dot: 2 makes flows.2.ipfix of flows.ipfix. 0 makes none.
std::string number_name(const std::string& name, uint32_t number);

}  // namespace ipfix_file
