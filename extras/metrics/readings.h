// One look at all metrics of the program, and the questions that are asked of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace metrics {

struct label {
    std::string name;
    std::string value;
};

struct reading {
    std::string name;
    std::string help;
    std::vector<label> labels;
    int32_t type;  // enum metric_type
    uint64_t value;

    // The value of a label; empty when it has no such label.
    std::string_view label_value(std::string_view label_name) const;
};

// From key="value",key="value" with \\, \" and \n as in the exposition format. What cannot be read
// ends the list.
std::vector<label> parse_labels(std::string_view text);

// In the order of metrics_snapshot.
using reading_list = std::vector<reading>;

reading_list take_readings();

// One row of the tables of names that readers of metrics go by.
struct wanted_label {
    std::string_view name;
    std::string_view value;
};

// The sum of all readings of that name, with that label when one is given. Nothing when there is
// none: the program does not count it.
std::optional<uint64_t> sum_of(const reading_list& list, std::string_view name,
                               std::optional<wanted_label> with = std::nullopt);

// The same of the smallest and of the largest.
std::optional<uint64_t> least_of(const reading_list& list, std::string_view name,
                                 wanted_label with);
std::optional<uint64_t> greatest_of(const reading_list& list, std::string_view name,
                                    wanted_label with);

// The different values that a label has among the readings of a name, in their order.
std::vector<std::string> values_of_label(const reading_list& list, std::string_view name,
                                         std::string_view label_name);

}  // namespace metrics
