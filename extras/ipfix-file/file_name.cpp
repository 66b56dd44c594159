#include "file_name.h"

#include <ctime>

namespace ipfix_file {

std::string expand_name(const std::string& pattern, uint64_t time_s) {
    const auto seconds = static_cast<time_t>(time_s);
    tm fields = {};
    char name[256] = {};
    if (gmtime_r(&seconds, &fields) == nullptr)
        return {};
    const size_t length = std::strftime(name, sizeof name, pattern.c_str(), &fields);
    return {name, length};
}

std::string number_name(const std::string& name, uint32_t number) {
    if (number == 0)
        return name;
    const size_t dot = name.rfind('.');
    const size_t place = dot == std::string::npos || dot == 0 ? name.size() : dot;
    return name.substr(0, place) + "." + std::to_string(number) + name.substr(place);
}

}  // namespace ipfix_file
