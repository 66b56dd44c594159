// Names of files that are made by time: while they are written, when they are complete, and when a
// run that ended has left them. The worker's thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace json_export {

// What the name of a file ends in while it is written.
inline constexpr std::string_view aside_suffix = ".part";

// What a pattern has that is no plain conversion, whose files could not be told by their names:
// one with a flag, a width, E or O, or one that makes a '/'. Empty: all are plain.
std::string odd_conversion(const std::string& pattern);

// The pattern with the conversions of strftime made from a time, in UTC. Without the suffix that
// compressed files have (".gz"), which is not doubled.
std::string name_at(const std::string& pattern, std::string_view suffix, uint64_t time_s);

// The nth name of a file: "flows.json.gz", "flows.json.1.gz" and so on.
std::string numbered(const std::string& name, uint32_t n, std::string_view suffix);

// Gives a file that is complete the first of its names that no file has, from n on; stores which.
// Nothing is ever replaced. Returns 0 or the error.
int take_name(const std::string& aside, const std::string& name, std::string_view suffix,
              uint32_t& n);

// Makes the directories of a path that are missing. Returns 0 or the error.
int make_directories(const std::string& path);

// The files of any time that are named as those that are being written, numbered or not.
std::vector<std::string> asides_of(const std::string& pattern, std::string_view suffix);

}  // namespace json_export
