// The start-up allocators of service.h as typed helpers. What they give lives for the whole run and
// is never freed.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

#include "kestrelexp/service.h"

namespace kestrel {

// One zeroed, cache-line-aligned object that lives for the whole run.
template <typename T, typename... Args>
T* make_lifelong(Args&&... args) {
    return new (malloc_wrapper(sizeof(T), 1)) T{std::forward<Args>(args)...};
}

// A zeroed big array: from a file in directory (meant to be hugetlbfs), or ordinary memory when
// directory is null, for which transparent huge pages are asked.
void* big_array(size_t bytes, const char* directory, const char* name);

// Ends the process after memory of so many bytes could not be had: the message, then the size.
[[noreturn]] void out_of_memory(const char* message, size_t size);

// Makes a failing operator new end the process as malloc_wrapper does, without the size, which is
// not told to its handler.
void install_memory_handler();

}  // namespace kestrel
