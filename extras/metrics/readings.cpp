#include "readings.h"

#include <algorithm>

#include "kestrelexp/metrics.h"

namespace metrics {

namespace {

// Reads a quoted text from its first quote on; returns what follows the last one, or nothing.
std::optional<std::string_view> read_quoted(std::string_view text, std::string& value) {
    if (!text.starts_with('"'))
        return std::nullopt;
    bool is_escaped = false;
    for (size_t n = 1; n < text.size(); ++n) {
        const char c = text[n];
        if (is_escaped) {
            value += c == 'n' ? '\n' : c;
            is_escaped = false;
        } else if (c == '\\') {
            is_escaped = true;
        } else if (c == '"') {
            return text.substr(n + 1);
        } else {
            value += c;
        }
    }
    return std::nullopt;
}

void add_reading(void* context, const metric_sample* sample) {
    static_cast<reading_list*>(context)->push_back(
        {sample->name, sample->help, parse_labels(sample->labels), sample->type, sample->value});
}

}  // namespace

std::string_view reading::label_value(std::string_view label_name) const {
    for (const label& one : labels)
        if (one.name == label_name)
            return one.value;
    return {};
}

std::vector<label> parse_labels(std::string_view text) {
    std::vector<label> found;
    while (!text.empty()) {
        const size_t end = text.find('=');
        if (end == std::string_view::npos)
            break;
        label one{std::string(text.substr(0, end)), {}};
        const auto rest = read_quoted(text.substr(end + 1), one.value);
        if (!rest)
            break;
        found.push_back(std::move(one));
        if (!rest->starts_with(','))
            break;
        text = rest->substr(1);
    }
    return found;
}

reading_list take_readings() {
    reading_list list;
    metrics_snapshot(add_reading, &list);
    return list;
}

std::optional<uint64_t> sum_of(const reading_list& list, std::string_view name,
                               std::optional<wanted_label> with) {
    std::optional<uint64_t> sum;
    for (const reading& one : list)
        if (one.name == name && (!with || one.label_value(with->name) == with->value))
            sum = sum.value_or(0) + one.value;
    return sum;
}

std::optional<uint64_t> least_of(const reading_list& list, std::string_view name,
                                 wanted_label with) {
    std::optional<uint64_t> least;
    for (const reading& one : list)
        if (one.name == name && one.label_value(with.name) == with.value)
            least = std::min(least.value_or(one.value), one.value);
    return least;
}

std::optional<uint64_t> greatest_of(const reading_list& list, std::string_view name,
                                    wanted_label with) {
    std::optional<uint64_t> greatest;
    for (const reading& one : list)
        if (one.name == name && one.label_value(with.name) == with.value)
            greatest = std::max(greatest.value_or(one.value), one.value);
    return greatest;
}

std::vector<std::string> values_of_label(const reading_list& list, std::string_view name,
                                         std::string_view label_name) {
    std::vector<std::string> found;
    for (const reading& one : list) {
        const std::string_view value = one.label_value(label_name);
        if (one.name == name && !value.empty() &&
            std::find(found.begin(), found.end(), value) == found.end())
            found.emplace_back(value);
    }
    return found;
}

}  // namespace metrics
