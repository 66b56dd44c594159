// The prefix masks of the AS tables, as constants that plugins may read.
#include <algorithm>
#include <cstdint>

#include "kestrelexp/builtin.h"

namespace {

// Word i of the mask of n bits. Words fill up from the first, each from its top bit.
constexpr uint32_t mask_word(int n, int i) {
    const int bits = std::clamp(n - 32 * i, 0, 32);
    return bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
}

}  // namespace

// A C array cannot be initialised from another object, so the elements are named one by one.
#define ROW4(n) mask_word(n, 0)
#define ROW6(n) \
    { mask_word(n, 0), mask_word(n, 1), mask_word(n, 2), mask_word(n, 3) }
#define FOUR(row, n) row(n), row((n) + 1), row((n) + 2), row((n) + 3)
#define SIXTEEN(row, n) FOUR(row, n), FOUR(row, (n) + 4), FOUR(row, (n) + 8), FOUR(row, (n) + 12)
#define THIRTY_TWO(row, n) SIXTEEN(row, n), SIXTEEN(row, (n) + 16)

constexpr uint32_t mask_array4[33] = {THIRTY_TWO(ROW4, 0), ROW4(32)};
constexpr uint32_t mask_array6[129][4] = {THIRTY_TWO(ROW6, 0), THIRTY_TWO(ROW6, 32),
                                          THIRTY_TWO(ROW6, 64), THIRTY_TWO(ROW6, 96), ROW6(128)};
