// What the fuzz targets share: the entry point's declaration, and how a target fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace kestrel_fuzz {

// Ends the process in a way that a fuzzer takes for a crash of the input at hand.
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

}  // namespace kestrel_fuzz
