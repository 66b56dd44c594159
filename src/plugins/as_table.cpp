// Order and search of the AS tables; see as_table.h.
#include "plugins/as_table.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "kestrelexp/builtin.h"

namespace kestrel {
namespace {

// Less, equal, greater as a number below, equal to or above 0.
int compare(uint32_t a, uint32_t b) {
    return (a > b) - (a < b);
}

int compare_masked(uint32_t address, const as4_entry& entry) {
    return compare(address & mask_array4[entry.prefix_len], entry.network);
}

using address6 = std::array<uint32_t, 4>;

int compare_masked(const address6& address, const as6_entry& entry) {
    const uint32_t(&mask)[4] = mask_array6[entry.prefix_len];
    for (size_t word = 4; word-- > 0;) {
        const uint32_t own = address[word] & mask[word];
        if (own != entry.network[word])
            return compare(own, entry.network[word]);
    }
    return 0;
}

bool stands_before(const as4_entry& a, const as4_entry& b) {
    return a.network > b.network;
}

bool stands_before(const as6_entry& a, const as6_entry& b) {
    return std::lexicographical_compare(std::rbegin(b.network), std::rend(b.network),
                                        std::rbegin(a.network), std::rend(a.network));
}

template <typename Entry>
void sort_table(std::vector<Entry>& table) {
    std::stable_sort(table.begin(), table.end(),
                     [](const Entry& a, const Entry& b) { return stands_before(a, b); });
}

// Every probe compares under the probed network's own prefix, and the first match ends the search:
// one pass whatever overlaps, at the price that a shorter prefix may hide a longer one.
template <typename Entry, typename Address>
uint32_t find_as(std::span<const Entry> table, const Address& address) {
    size_t low = 0;
    size_t high = table.size();
    while (low < high) {
        const size_t middle = (low + high) / 2;
        const Entry& probed = table[middle];
        const int order = compare_masked(address, probed);
        if (order == 0)
            return probed.asn;
        if (order > 0)
            high = middle;
        else
            low = middle + 1;
    }
    return 0;
}

}  // namespace

as4_entry make_as4_entry(uint32_t asn, uint32_t address, uint16_t prefix_len) {
    return {asn, address & mask_array4[prefix_len], prefix_len};
}

as6_entry make_as6_entry(uint32_t asn, const uint32_t (&address)[4], uint16_t prefix_len) {
    as6_entry entry = {asn, {}, prefix_len};
    for (size_t word = 0; word < 4; ++word)
        entry.network[word] = address[word] & mask_array6[prefix_len][word];
    return entry;
}

void sort_as_tables(as_tables& tables) {
    sort_table(tables.table4);
    sort_table(tables.table6);
}

uint32_t find_as4(std::span<const as4_entry> table, uint32_t address) {
    return find_as(table, address);
}

uint32_t find_as6(std::span<const as6_entry> table, const uint8_t (&address)[16]) {
    address6 words;
    std::memcpy(words.data(), address, sizeof address);
    return find_as(table, words);
}

}  // namespace kestrel
