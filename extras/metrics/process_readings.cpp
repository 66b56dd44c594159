#include "process_readings.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace metrics {

namespace {

// Fields of /proc/PID/stat, counted from the one after the name in brackets, which is 0.
constexpr size_t start_field = 19;
constexpr size_t virtual_field = 20;
constexpr size_t resident_field = 21;

std::string read_file(const char* path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return std::move(text).str();
}

std::optional<double> number(std::string_view text) {
    double value;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (fault != std::errc{} || end == text.data())
        return std::nullopt;
    return value;
}

// The system's start, s since the epoch.
std::optional<double> boot_time() {
    const std::string text = read_file("/proc/stat");
    constexpr std::string_view key = "\nbtime ";
    const size_t place = text.find(key);
    if (place == std::string::npos)
        return std::nullopt;
    return number(std::string_view(text).substr(place + key.size()));
}

std::optional<double> open_descriptors() {
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr)
        return std::nullopt;
    double count = 0;
    while (const dirent* entry = readdir(directory))
        count += entry->d_name[0] != '.';
    closedir(directory);
    return count - 1;  // one is the look itself
}

double seconds_of(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

std::optional<process_stat> parse_process_stat(std::string_view text) {
    const size_t name_end = text.rfind(')');  // a name may hold brackets and blanks
    if (name_end == std::string_view::npos)
        return std::nullopt;
    text.remove_prefix(name_end + 1);
    std::vector<std::string_view> fields;
    while (!text.empty()) {
        const size_t begin = text.find_first_not_of(" \n");
        if (begin == std::string_view::npos)
            break;
        text.remove_prefix(begin);
        const size_t end = std::min(text.find_first_of(" \n"), text.size());
        fields.push_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    if (fields.size() <= resident_field)
        return std::nullopt;
    const auto start = number(fields[start_field]), size = number(fields[virtual_field]),
               resident = number(fields[resident_field]);
    if (!start || !size || !resident)
        return std::nullopt;
    return process_stat{*start, *size, *resident};
}

std::optional<double> process_start_time() {
    const auto stat = parse_process_stat(read_file("/proc/self/stat"));
    const auto boot = boot_time();
    if (!stat || !boot)
        return std::nullopt;
    return *boot + stat->start_ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::vector<process_reading> take_process_readings() {
    std::vector<process_reading> found;
    rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) == 0)
        found.push_back({"process_cpu_seconds_total", "User and system CPU time of the process.",
                         true, seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime)});
    if (const auto stat = parse_process_stat(read_file("/proc/self/stat"))) {
        found.push_back({"process_resident_memory_bytes", "Resident memory of the process.", false,
                         stat->resident_pages * static_cast<double>(sysconf(_SC_PAGESIZE))});
        found.push_back({"process_virtual_memory_bytes", "Virtual memory of the process.", false,
                         stat->virtual_bytes});
    }
    if (const auto count = open_descriptors())
        found.push_back({"process_open_fds", "Open file descriptors.", false, *count});
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0)
        found.push_back({"process_max_fds", "Most file descriptors that may be open.", false,
                         static_cast<double>(limit.rlim_cur)});
    if (const auto start = process_start_time())
        found.push_back({"process_start_time_seconds",
                         "When the process began, in seconds since the epoch.", false, *start});
    return found;
}

}  // namespace metrics
