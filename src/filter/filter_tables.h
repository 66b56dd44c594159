// The arrays of a filter: how they grow, how they are sorted, who owns them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "base/memory.h"
#include "kestrelexp/filter.h"

namespace kestrel {

struct free_filter {
    void operator()(filter_rules* rules) const;
};
using filter_owner = std::unique_ptr<filter_rules, free_filter>;

filter_owner make_filter();

// Sorts the fast entries and gives back what the arrays hold too much. Nothing is appended after
// this.
void complete_filter(filter_rules& rules);

template <typename T>
void resize_array(T*& array, uint64_t capacity) {
    array = static_cast<T*>(std::realloc(array, capacity * sizeof(T)));
    if (!array)
        out_of_memory("Malloc problem", capacity * sizeof(T));
}

// A new zeroed row at the end of an array that only grows by this function. Capacities are powers
// of two, so the count alone tells when there is no room.
template <typename T>
T& append(T*& array, uint64_t& count) {
    if ((count & (count - 1)) == 0)
        resize_array(array, std::max<uint64_t>(2 * count, 1));
    return array[count++] = T{};
}

}  // namespace kestrel
