// A second table of AS numbers, written for clarity: an insertion sort, masks built bit by bit, one
// search for addresses of any number of words. The tests hold the program's AS helper against it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrel_model {

// An address as 32-bit words, the least significant first: one word for IPv4, four for IPv6.
using address_words = std::vector<uint32_t>;

struct as_network {
    uint32_t number;
    address_words address;
    unsigned prefix_length;  // bits
};

// The table of one family. The rule is not that of routers: the first network that the halving
// search meets counts, and the prefix of an IPv6 network counts words from the least significant.
class as_model {
  public:
    // Lines come in the order of the file. The address is cut to its prefix.
    void add(const as_network& network);
    // The AS number of an address, 0 when the search meets no network that holds it.
    uint32_t find(const address_words& address) const;

  private:
    uint32_t find_between(const address_words& address, size_t first, size_t end) const;

    std::vector<as_network> networks_;  // greatest address first; of equals, the earlier line first
};

}  // namespace kestrel_model
