// The arrays of a filter: how they are sorted and freed. Main thread, while the program starts; a
// filter that serves is never freed, one that is given up is freed whole.
#include "filter/filter_tables.h"

#include <tuple>

namespace kestrel {
namespace {

template <typename T>
void trim(T*& array, uint64_t count) {
    if (count > 0)
        resize_array(array, count);
}

uint64_t half(const uint32_t* words) {
    return uint64_t{words[1]} << 32 | words[0];
}

auto sort_keys(const fast4_entry& e) {
    return std::tuple(e.src_low, e.dst_low);
}

// The low half stands before the high one.
auto sort_keys(const fast6_entry& e) {
    return std::tuple(half(e.src_low), half(e.src_low + 2), half(e.dst_low), half(e.dst_low + 2));
}

template <typename Entry>
int compare(const void* a, const void* b) {
    const auto left = sort_keys(*static_cast<const Entry*>(a));
    const auto right = sort_keys(*static_cast<const Entry*>(b));
    return left < right ? -1 : right < left ? 1 : 0;
}

// Entries that compare equal stay in the order of the file.
template <typename Entry>
void sort(Entry* entries, uint64_t count) {
    std::stable_sort(entries, entries + count,
                     [](const Entry& a, const Entry& b) { return sort_keys(a) < sort_keys(b); });
}

}  // namespace

void free_filter::operator()(filter_rules* rules) const {
    for (uint64_t i = 0; i < rules->slow_count; ++i)
        std::free(rules->slow[i].text);
    std::free(rules->slow);
    std::free(rules->fast6);
    std::free(rules->fast4);
    std::free(rules);
}

filter_owner make_filter() {
    return filter_owner(static_cast<filter_rules*>(malloc_wrapper(sizeof(filter_rules), 0)));
}

void complete_filter(filter_rules& rules) {
    trim(rules.slow, rules.slow_count);
    trim(rules.fast6, rules.fast6_count);
    trim(rules.fast4, rules.fast4_count);
    sort(rules.fast4, rules.fast4_count);
    sort(rules.fast6, rules.fast6_count);
}

}  // namespace kestrel

using namespace kestrel;

int fast4_compare(const void* a, const void* b) {
    return compare<fast4_entry>(a, b);
}

int fast6_compare(const void* a, const void* b) {
    return compare<fast6_entry>(a, b);
}
