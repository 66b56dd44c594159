#include "filter/filter_tables.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using namespace kestrel;

fast4_entry entry4(uint32_t source, uint32_t destination) {
    return {source, 0, destination, 0, 0};
}

// One word of the source or of the destination set, all others 0.
fast6_entry source6(unsigned word, uint32_t value) {
    fast6_entry entry = {};
    entry.src_low[word] = value;
    return entry;
}
fast6_entry destination6(unsigned word, uint32_t value) {
    fast6_entry entry = {};
    entry.dst_low[word] = value;
    return entry;
}

void expect_order4(const fast4_entry& first, const fast4_entry& second) {
    EXPECT_LT(fast4_compare(&first, &second), 0);
    EXPECT_GT(fast4_compare(&second, &first), 0);
}
void expect_order6(const fast6_entry& first, const fast6_entry& second) {
    EXPECT_LT(fast6_compare(&first, &second), 0);
    EXPECT_GT(fast6_compare(&second, &first), 0);
}

TEST(FilterTables, Ipv4EntriesGoBySourceThenDestination) {
    expect_order4(entry4(1, 9), entry4(2, 0));
    expect_order4(entry4(1, 1), entry4(1, 2));
    expect_order4(entry4(0x7FFFFFFF, 0), entry4(0x80000000, 0));
    expect_order4(entry4(0, 0x7FFFFFFF), entry4(0, 0x80000000));
}

TEST(FilterTables, SpansAndNegationDoNotOrder) {
    const fast4_entry narrow = {1, 0, 2, 0, 0};
    const fast4_entry wide = {1, 9, 2, 9, 1};
    EXPECT_EQ(0, fast4_compare(&narrow, &wide));
    fast6_entry six = source6(0, 1);
    fast6_entry other = six;
    other.src_span[3] = other.dst_span[3] = other.negate = 1;
    EXPECT_EQ(0, fast6_compare(&six, &other));
}

TEST(FilterTables, Ipv6EntriesGoByTheLowHalfBeforeTheHighOne) {
    expect_order6(source6(3, 0xFFFFFFFF), source6(0, 1));
    expect_order6(source6(0, 0xFFFFFFFF), source6(1, 1));
    expect_order6(source6(2, 0xFFFFFFFF), source6(3, 1));
    expect_order6(destination6(3, 0xFFFFFFFF), destination6(0, 1));
    expect_order6(destination6(0, 0xFFFFFFFF), destination6(1, 1));
    expect_order6(destination6(2, 0xFFFFFFFF), destination6(3, 1));
}

TEST(FilterTables, Ipv6EntriesGoBySourceBeforeDestination) {
    expect_order6(destination6(1, 0xFFFFFFFF), source6(2, 1));
    expect_order6(destination6(0, 0x7FFFFFFF), destination6(0, 0x80000000));
}

TEST(FilterTables, CompletingSortsAndKeepsTheOrderOfEquals) {
    // Sources 6 ... 0 in turn, numbered by their spans; many enough for any sort to move equals.
    constexpr uint32_t rounds = 30;
    const filter_owner rules = make_filter();
    for (uint32_t number = 0; number < 7 * rounds; ++number) {
        const uint32_t source = 6 - number % 7;
        append(rules->fast4, rules->fast4_count) = {source, number, 0, 0, 0};
        append(rules->fast6, rules->fast6_count) = {{0, 0, 0, source}, {number}, {}, {}, 0};
    }
    complete_filter(*rules);
    for (uint32_t i = 0; i < 7 * rounds; ++i) {
        const uint32_t source = i / rounds;
        const uint32_t number = 6 - source + 7 * (i % rounds);
        EXPECT_EQ(source, rules->fast4[i].src_low);
        EXPECT_EQ(number, rules->fast4[i].src_span);
        EXPECT_EQ(source, rules->fast6[i].src_low[3]);
        EXPECT_EQ(number, rules->fast6[i].src_span[0]);
    }
}

TEST(FilterTables, NewRowsAreZero) {
    const filter_owner rules = make_filter();
    for (unsigned i = 0; i < 9; ++i) {
        slow_rule& rule = append(rules->slow, rules->slow_count);
        EXPECT_EQ(0u, rule.mask);
        EXPECT_EQ(nullptr, rule.text);
        rule.mask = 0x2000 + i;
    }
    for (uint32_t i = 0; i < 9; ++i)
        EXPECT_EQ(0x2000 + i, rules->slow[i].mask);
}

TEST(FilterTables, ANewFilterIsEmpty) {
    const filter_owner rules = make_filter();
    complete_filter(*rules);
    EXPECT_EQ(0u, rules->slow_count + rules->fast4_count + rules->fast6_count);
    EXPECT_EQ(nullptr, rules->fast4);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' allocators end the process in their own way.
TEST(FilterTables, ExhaustedMemoryEndsTheProcess) {
    uint16_t* array = nullptr;
    EXPECT_EXIT(resize_array(array, uint64_t{1} << 60), testing::ExitedWithCode(102),
                "^Malloc problem\nUnable to get 2305843009213693952 bytes of memory\n$");
}
#endif

}  // namespace
