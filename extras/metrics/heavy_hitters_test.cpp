#include "heavy_hitters.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using metrics::heavy_hitters;
using metrics::hitter;
using metrics::hitter_key;

// Everything that was added, counted without any limit.
class exact_count {
  public:
    void add(const hitter_key& key, uint64_t weight) {
        weights_[key] += weight;
        total_ += weight;
    }

    void expect_bounds_hold(const heavy_hitters& summary) const {
        std::map<hitter_key, uint64_t> left = weights_;
        for (const hitter& one : summary.list()) {
            const uint64_t exact = weights_.at(one.key);
            EXPECT_LE(one.weight, exact);
            EXPECT_LE(exact, one.weight + summary.error());
            EXPECT_EQ(left.erase(one.key), 1U) << "a key that is listed twice";
        }
        for (const auto& [key, exact] : left)
            EXPECT_LE(exact, summary.error()) << "a heavy key that is not listed";
        EXPECT_LE(summary.error(), total_ / 256);
    }

  private:
    std::map<hitter_key, uint64_t> weights_;
    uint64_t total_ = 0;
};

TEST(HeavyHitters, AreExactWhileThereAreFewKeys) {
    heavy_hitters summary(7);
    for (uint64_t round = 0; round < 3; ++round)
        for (uint64_t key = 0; key < 511; ++key)
            summary.add({key, 1}, key + 1);
    EXPECT_EQ(summary.error(), 0U);
    const std::vector<hitter> list = summary.list();
    EXPECT_EQ(list.size(), 511U);
    for (const hitter& one : list)
        EXPECT_EQ(one.weight, 3 * (one.key.high + 1));
}

TEST(HeavyHitters, KeepTheirBoundsWhenAFewKeysAreHeavy) {
    std::mt19937_64 random(1);
    for (uint64_t seed = 0; seed < 4; ++seed) {
        heavy_hitters summary(seed);
        exact_count model;
        for (int n = 0; n < 60'000; ++n) {
            // Half of the weight goes to a dozen keys, the rest to any of a million.
            const uint64_t key = n % 2 == 0 ? random() % 12 : 100 + random() % 1'000'000;
            const uint64_t weight = 40 + random() % 1461;
            summary.add({0, key}, weight);
            model.add({0, key}, weight);
        }
        model.expect_bounds_hold(summary);
        EXPECT_GT(summary.error(), 0U);
    }
}

TEST(HeavyHitters, KeepTheirBoundsWhenEveryKeyIsNew) {
    heavy_hitters summary(3);
    exact_count model;
    for (uint64_t n = 0; n < 50'000; ++n) {
        summary.add({n, ~n}, 1000);
        model.add({n, ~n}, 1000);
    }
    model.expect_bounds_hold(summary);
}

TEST(HeavyHitters, KeepTheirBoundsWhenWeightsGrow) {
    heavy_hitters summary(3);
    exact_count model;
    for (uint64_t n = 0; n < 20'000; ++n) {
        summary.add({n % 3000, 5}, n);
        model.add({n % 3000, 5}, n);
    }
    model.expect_bounds_hold(summary);
}

TEST(HeavyHitters, ListAKeyOfAHundredthOfAllWhateverElsePasses) {
    heavy_hitters summary(9);
    for (uint64_t n = 0; n < 100'000; ++n)
        summary.add(n % 50 == 0 ? hitter_key{1, 1} : hitter_key{2, n}, 100);
    uint64_t found = 0;
    for (const hitter& one : summary.list())
        if (one.key == hitter_key{1, 1})
            found = one.weight;
    EXPECT_GE(found, 200'000 - 10'000'000 / 256);
    EXPECT_LE(found, 200'000U);
}

TEST(HeavyHitters, DoNotListWhatWeighsNothing) {
    heavy_hitters summary(9);
    for (uint64_t n = 0; n < 2000; ++n)
        summary.add({n, n}, 0);
    EXPECT_TRUE(summary.list().empty());
    EXPECT_EQ(summary.error(), 0U);
}

TEST(HeavyHitters, AreEmptyOnceCleared) {
    heavy_hitters summary(9);
    for (uint64_t n = 0; n < 2000; ++n)
        summary.add({n, n}, n);
    summary.clear();
    EXPECT_TRUE(summary.list().empty());
    EXPECT_EQ(summary.error(), 0U);
    summary.add({1, 2}, 3);
    ASSERT_EQ(summary.list().size(), 1U);
    EXPECT_EQ(summary.list()[0].weight, 3U);
}

}  // namespace
