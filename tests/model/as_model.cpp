#include "tests/model/as_model.h"

namespace kestrel_model {
namespace {

// The first `length` bits of the address, counted from the top bit of word 0, then from the top bit
// of word 1, and so on; all other bits 0.
address_words cut(const address_words& address, unsigned length) {
    address_words result(address.size(), 0);
    for (unsigned bit = 0; bit < length; ++bit) {
        const uint32_t mask = uint32_t{1} << (31 - bit % 32);
        result[bit / 32] |= address[bit / 32] & mask;
    }
    return result;
}

// -1, 0 or 1 as for numbers: the last word decides first.
int compare(const address_words& a, const address_words& b) {
    for (size_t i = a.size(); i > 0; --i) {
        if (a[i - 1] != b[i - 1])
            return a[i - 1] < b[i - 1] ? -1 : 1;
    }
    return 0;
}

}  // namespace

void as_model::add(const as_network& network) {
    as_network kept = network;
    kept.address = cut(network.address, network.prefix_length);
    size_t place = 0;
    while (place < networks_.size() && compare(networks_[place].address, kept.address) >= 0)
        ++place;
    networks_.insert(networks_.begin() + static_cast<std::ptrdiff_t>(place), kept);
}

uint32_t as_model::find(const address_words& address) const {
    return find_between(address, 0, networks_.size());
}

uint32_t as_model::find_between(const address_words& address, size_t first, size_t end) const {
    if (first >= end)
        return 0;
    const size_t middle = (first + end) / 2;
    const as_network& probed = networks_[middle];
    const int order = compare(cut(address, probed.prefix_length), probed.address);
    if (order > 0)
        return find_between(address, first, middle);
    if (order < 0)
        return find_between(address, middle + 1, end);
    return probed.number;
}

}  // namespace kestrel_model
