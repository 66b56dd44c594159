// Tables of networks with their AS numbers, and the search in them. Built and used on the record
// loop's thread. The search allocates nothing.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kestrel {

struct as4_entry {
    uint32_t asn;
    uint32_t network;  // host order, cut to its prefix
    uint16_t prefix_len;
};

// Words as in records, least significant first; each is cut by the word of mask_array6 at the same
// index.
struct as6_entry {
    uint32_t asn;
    uint32_t network[4];
    uint16_t prefix_len;
};

as4_entry make_as4_entry(uint32_t asn, uint32_t address, uint16_t prefix_len);
as6_entry make_as6_entry(uint32_t asn, const uint32_t (&address)[4], uint16_t prefix_len);

struct as_tables {
    std::vector<as4_entry> table4;
    std::vector<as6_entry> table6;

    bool empty() const { return table4.empty() && table6.empty(); }
};

// Puts the greatest network first. Networks of one address keep the order that they came in.
void sort_as_tables(as_tables& tables);

// The AS number of an address in a sorted table, 0 when there is none. The first network that the
// halving search meets counts, not the longest prefix.
uint32_t find_as4(std::span<const as4_entry> table, uint32_t address);
// address: the 16 bytes of a record.
uint32_t find_as6(std::span<const as6_entry> table, const uint8_t (&address)[16]);

}  // namespace kestrel
