#include "heavy_hitters.h"

#include <algorithm>
#include <span>

namespace metrics {

namespace {

uint64_t mix(uint64_t x) {
    x = (x ^ x >> 32) * 0x9E3779B97F4A7C15;
    return x ^ x >> 29;
}

}  // namespace

// The slot that holds the key, or the empty one where it belongs. There always is an empty one.
hitter& heavy_hitters::slot_of(const hitter_key& key) {
    size_t place = mix(mix(key.high ^ seed_) ^ key.low);
    for (;; ++place) {
        hitter& slot = slots_[place % slot_count];
        if (slot.weight == 0 || slot.key == key)
            return slot;
    }
}

void heavy_hitters::add(const hitter_key& key, uint64_t weight) {
    if (weight == 0)
        return;
    hitter& slot = slot_of(key);
    if (slot.weight == 0) {
        slot.key = key;
        ++count_;
    }
    slot.weight += weight;
    if (count_ == most_keys) [[unlikely]]
        cut();
}

// Takes the median from every counter and gives up those that it leaves nothing of. That is at
// least half of them, and the median is taken from the other half in full.
void heavy_hitters::cut() {
    size_t taken = 0;
    for (hitter& slot : slots_) {
        if (slot.weight != 0)
            kept_[taken++] = slot;
        slot.weight = 0;
    }
    const std::span all = std::span(kept_).first(taken);
    std::nth_element(
        all.begin(), all.begin() + most_keys / 2, all.end(),
        [](const hitter& one, const hitter& other) { return one.weight < other.weight; });
    const uint64_t median = all[most_keys / 2].weight;
    error_ += median;
    count_ = 0;
    for (const hitter& one : all)
        if (one.weight > median) {
            slot_of(one.key) = {one.key, one.weight - median};
            ++count_;
        }
}

void heavy_hitters::clear() {
    if (count_ != 0)
        slots_.fill({});
    count_ = 0;
    error_ = 0;
}

std::vector<hitter> heavy_hitters::list() const {
    std::vector<hitter> found;
    found.reserve(count_);
    for (const hitter& slot : slots_)
        if (slot.weight != 0)
            found.push_back(slot);
    return found;
}

}  // namespace metrics
