// Rings and queues live for the whole run and are never freed. Tests make many of them; keeping a
// pointer to each tells a leak checker that this is meant.
#pragma once

#include <vector>

namespace kestrel_test {

template <typename T>
T* keep(T* lifelong) {
    static auto* const kept = new std::vector<T*>;
    kept->push_back(lifelong);
    return lifelong;
}

}  // namespace kestrel_test
