#include "losses.h"

#include <algorithm>

#include "names.h"

namespace metrics {

namespace {

// Reasons for which an export keeps packets back because its options say so.
constexpr std::string_view wanted_reasons[] = {"filter", "sampling"};

bool is_wanted(std::string_view reason) {
    return std::find(std::begin(wanted_reasons), std::end(wanted_reasons), reason) !=
           std::end(wanted_reasons);
}

bool is_nothing(const reason_count& one) {
    return one.packets == 0;
}

std::vector<reason_count> without_nothing(std::vector<reason_count> counts) {
    std::erase_if(counts, is_nothing);
    return counts;
}

}  // namespace

std::vector<reason_count> capture_losses(const reading_list& list) {
    std::vector<reason_count> found;
    for (const std::string& stage : values_of_label(list, names::capture_dropped, "stage"))
        found.push_back({stage,
                         sum_of(list, names::capture_dropped, wanted_label{"stage", stage}).value(),
                         true});
    found.push_back({"sampling", sum_of(list, names::capture_left_out).value_or(0), false});
    return without_nothing(std::move(found));
}

std::vector<reason_count> parser_losses(const reading_list& list) {
    std::vector<reason_count> found;
    for (const std::string& reason : values_of_label(list, names::parser_discarded, "reason"))
        found.push_back(
            {reason, sum_of(list, names::parser_discarded, wanted_label{"reason", reason}).value(),
             false});
    return without_nothing(std::move(found));
}

std::vector<reason_count> export_losses(const reading_list& list, std::string_view export_name) {
    std::vector<reason_count> found;
    for (const reading& one : list)
        if (one.name == names::export_lost_packets && one.label_value("export") == export_name) {
            const std::string reason(one.label_value("reason"));
            // An export with several collectors has a reason several times.
            const auto known = std::find_if(
                found.begin(), found.end(),
                [&reason](const reason_count& counted) { return counted.reason == reason; });
            if (known != found.end())
                known->packets += one.value;
            else
                found.push_back({reason, one.value, !is_wanted(reason)});
        }
    return without_nothing(std::move(found));
}

uint64_t all_lost_packets(const reading_list& list) {
    uint64_t sum = sum_of(list, names::capture_dropped).value_or(0);
    for (const reading& one : list)
        if (one.name == names::export_lost_packets && !is_wanted(one.label_value("reason")))
            sum += one.value;
    return sum;
}

}  // namespace metrics
