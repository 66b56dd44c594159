#include "flow/flow_key.h"

#include <cstddef>

namespace {

constexpr uint64_t polynomial_reflected = 0xC96C'5795'D787'0F42;

struct slicing_tables {
    uint64_t row[4][256];
};

constexpr slicing_tables make_tables() {
    slicing_tables tables{};
    for (size_t i = 0; i < 256; ++i) {
        uint64_t crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) ? polynomial_reflected : 0);
        tables.row[0][i] = crc;
    }
    for (size_t k = 1; k < 4; ++k)
        for (size_t i = 0; i < 256; ++i) {
            const uint64_t shorter = tables.row[k - 1][i];
            tables.row[k][i] = (shorter >> 8) ^ tables.row[0][shorter & 0xFF];
        }
    return tables;
}

constexpr slicing_tables tables = make_tables();
static_assert(tables.row[0][1] == 0xB32E'4CBE'03A7'5F6F);
static_assert(tables.row[0][128] == polynomial_reflected);

}  // namespace

// A C array cannot be initialised from another object, so the elements are named one by one.
#define FOUR(k, i) \
    tables.row[k][i], tables.row[k][(i) + 1], tables.row[k][(i) + 2], tables.row[k][(i) + 3]
#define SIXTEEN(k, i) FOUR(k, i), FOUR(k, (i) + 4), FOUR(k, (i) + 8), FOUR(k, (i) + 12)
#define SIXTY_FOUR(k, i) \
    SIXTEEN(k, i), SIXTEEN(k, (i) + 16), SIXTEEN(k, (i) + 32), SIXTEEN(k, (i) + 48)
#define ROW(k) \
    { SIXTY_FOUR(k, 0), SIXTY_FOUR(k, 64), SIXTY_FOUR(k, 128), SIXTY_FOUR(k, 192) }

constexpr uint64_t crc64_table[4][256] = {ROW(0), ROW(1), ROW(2), ROW(3)};
