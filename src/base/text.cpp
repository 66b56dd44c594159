// Small bit and text helpers for plugins and start-up. Pure functions, any thread.
#include <bit>
#include <cstdlib>

#include "kestrelexp/service.h"

uint32_t ones32(uint32_t x) {
    return static_cast<uint32_t>(std::popcount(x));
}

int32_t count_ones(const uint8_t* bytes, int n) {
    int32_t total = 0;
    for (int i = 0; i < n; ++i)
        total += std::popcount(bytes[i]);
    return total;
}

char* str2hexa(const uint8_t* bytes, unsigned n) {
    constexpr char digits[] = "0123456789ABCDEF";
    char* text = static_cast<char*>(std::malloc(size_t{n} * 2 + 1));
    if (!text)
        return nullptr;
    char* to = text;
    for (unsigned i = 0; i < n; ++i) {
        *to++ = digits[bytes[i] >> 4];
        *to++ = digits[bytes[i] & 15];
    }
    *to = '\0';
    return text;
}

int32_t test_positive_number(const char* text) {
    for (const char* c = text; *c; ++c) {
        if (*c < '0' || *c > '9')
            return -1;
    }
    return static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

int32_t return_zero_func(void) {
    return 0;
}
