// SHA-1 of one block; see sha1.h.
#include "sha1.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace flow_encoding {
namespace {

constexpr size_t block_bytes = 64;
constexpr size_t block_words = 16;

struct state {
    uint32_t a, b, c, d, e;
};
constexpr state initial = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};

// Word n of the schedule (RFC 3174 section 6.2), which needs no more than the last sixteen.
__attribute__((always_inline)) inline uint32_t word_of(uint32_t words[block_words], size_t n) {
    if (n >= block_words)
        words[n % block_words] =
            std::rotl(words[(n - 3) % block_words] ^ words[(n - 8) % block_words] ^
                          words[(n - 14) % block_words] ^ words[n % block_words],
                      1);
    return words[n % block_words];
}

__attribute__((always_inline)) inline void turn(state& now, uint32_t mixed, uint32_t constant,
                                                uint32_t word) {
    const uint32_t next = std::rotl(now.a, 5) + mixed + now.e + constant + word;
    now = {next, now.a, std::rotl(now.b, 30), now.c, now.d};
}

state compress(uint32_t words[block_words]) {
    state now = initial;
#pragma GCC unroll 20
    for (size_t n = 0; n < 20; ++n)
        turn(now, now.d ^ (now.b & (now.c ^ now.d)), 0x5A827999, word_of(words, n));
#pragma GCC unroll 20
    for (size_t n = 20; n < 40; ++n)
        turn(now, now.b ^ now.c ^ now.d, 0x6ED9EBA1, word_of(words, n));
#pragma GCC unroll 20
    for (size_t n = 40; n < 60; ++n)
        turn(now, (now.b & now.c) | (now.d & (now.b | now.c)), 0x8F1BBCDC, word_of(words, n));
#pragma GCC unroll 20
    for (size_t n = 60; n < 80; ++n)
        turn(now, now.b ^ now.c ^ now.d, 0xCA62C1D6, word_of(words, n));
    return {initial.a + now.a, initial.b + now.b, initial.c + now.c, initial.d + now.d,
            initial.e + now.e};
}

}  // namespace

sha1_digest sha1_of(std::span<const uint8_t> message) {
    alignas(block_bytes) uint8_t block[block_bytes] = {};
    const size_t length = std::min(message.size(), sha1_message_limit);
    std::memcpy(block, message.data(), length);
    block[length] = 0x80;
    const auto bits = static_cast<uint16_t>(8 * length);
    block[block_bytes - 2] = static_cast<uint8_t>(bits >> 8);
    block[block_bytes - 1] = static_cast<uint8_t>(bits);
    uint32_t words[block_words];
    std::memcpy(words, block, sizeof words);
    for (uint32_t& word : words)
        word = __builtin_bswap32(word);
    const state end = compress(words);
    const uint32_t swapped[] = {__builtin_bswap32(end.a), __builtin_bswap32(end.b),
                                __builtin_bswap32(end.c), __builtin_bswap32(end.d),
                                __builtin_bswap32(end.e)};
    sha1_digest digest;
    std::memcpy(digest.data(), swapped, sizeof swapped);
    return digest;
}

}  // namespace flow_encoding
