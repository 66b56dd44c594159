// Owners of what the C services hand out: texts and arrays on the heap, the lines of a file.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kestrelexp/service.h"

namespace kestrel {

struct free_heap {
    void operator()(void* block) const { std::free(block); }
};

using heap_text = std::unique_ptr<char, free_heap>;

// Pointers to texts that are not the array's own: what char_split returns.
using heap_array = std::unique_ptr<char*[], free_heap>;

inline heap_text heap_copy(const char* text, size_t length) {
    auto* copy = static_cast<char*>(malloc_wrapper(length + 1, 0));
    return heap_text(static_cast<char*>(std::memcpy(copy, text, length)));
}

struct free_lines {
    void operator()(char** lines) const {
        for (char** line = lines; *line; ++line)
            std::free(*line);
        std::free(lines);
    }
};

// What read_config returns.
using config_lines = std::unique_ptr<char*[], free_lines>;

}  // namespace kestrel
