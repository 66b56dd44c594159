// Values of filter rules: addresses, ranges of numbers, names of services. Main thread, while the
// program starts; names are resolved here and never again.
#include "filter/filter_values.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "core/utils/heap.h"
#include "core/utils/log.h"
#include "core/utils/wire.h"
#include "kestrelexp/filter.h"

namespace kestrel {

std::optional<int64_t> all_digits(const char* text) {
    if (text[std::strspn(text, "0123456789")] != '\0')
        return {};
    return std::strtoll(text, nullptr, 10);
}

namespace {

constexpr int no_address = -1;

int64_t decimal(const char* text) {
    return std::strtoll(text, nullptr, 10);  // what is no digit ends the number: "8x" is 8
}

// ---- Addresses ----

struct address {
    int family = no_address;  // 4, 6, 0 for any other, no_address when it cannot be resolved
    uint32_t words[FILTER_ADDRESS_WORDS] = {};

    size_t count() const { return family == 4 ? 1 : FILTER_ADDRESS_WORDS; }
};

struct free_addresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, free_addresses>;

address_list look_up(const char* host) {
    // A number is what it is: without this step it costs three hundred times as much, and on a host
    // without IPv6 no IPv6 address would be taken.
    addrinfo numeric = {};
    numeric.ai_flags = AI_NUMERICHOST;
    numeric.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host, nullptr, &numeric, &list) == 0 ||
        getaddrinfo(host, nullptr, nullptr, &list) == 0)
        return address_list(list);
    return nullptr;
}

// The first address of a host.
address resolve(const char* host) {
    address result;
    const address_list list = look_up(host);
    if (!list) {
        verbose_msg(-1, "Unable to resolve host: %s", host);
        return result;
    }
    result.family = 0;
    const auto* generic = reinterpret_cast<const uint8_t*>(list->ai_addr);
    if (list->ai_family == AF_INET) {
        result.family = 4;
        result.words[0] = load_be32(generic + offsetof(sockaddr_in, sin_addr));
    } else if (list->ai_family == AF_INET6) {
        result.family = 6;
        const uint8_t* bytes = generic + offsetof(sockaddr_in6, sin6_addr);
        for (size_t i = 0; i < FILTER_ADDRESS_WORDS; ++i)
            result.words[FILTER_ADDRESS_WORDS - 1 - i] = load_be32(bytes + 4 * i);
    }
    return result;
}

struct bounds {
    uint32_t* low;
    uint32_t* high;

    void open() const {
        std::fill_n(low, FILTER_ADDRESS_WORDS, 0u);
        std::fill_n(high, FILTER_ADDRESS_WORDS, ~0u);
    }
    void set(const address& from, const address& to) const {
        std::copy_n(from.words, from.count(), low);
        std::copy_n(to.words, from.count(), high);
    }
};

// Opens the bounds of the other side where nothing stands in them yet.
bounds bounds_of(int side, const bounds& source, const bounds& destination, uint32_t* side_set) {
    if (side == FILTER_SIDE_EITHER) {
        *side_set |= FILTER_SIDE_SOURCE | FILTER_SIDE_DESTINATION;
        return source;
    }
    const bool is_source = side == FILTER_SIDE_SOURCE;
    if (!(*side_set & (is_source ? FILTER_SIDE_DESTINATION : FILTER_SIDE_SOURCE)))
        (is_source ? destination : source).open();
    *side_set |= is_source ? FILTER_SIDE_SOURCE : FILTER_SIDE_DESTINATION;
    return is_source ? source : destination;
}

// Bits behind the prefix become 0 in the lower bound, 1 in the upper one. A prefix of 0 means the
// address alone: "/0" is far more often a slip than a wish for every address.
void apply_prefix(int64_t prefix, address* low, address* high) {
    const size_t count = low->count();
    if (prefix < 1)
        return;
    const size_t free_bits = 32 * count - static_cast<size_t>(prefix);
    for (size_t i = 0; i < count; ++i) {
        const size_t free_here = std::min<size_t>(free_bits - std::min(free_bits, 32 * i), 32);
        const uint32_t mask = static_cast<uint32_t>((uint64_t{1} << free_here) - 1);
        low->words[i] &= ~mask;
        high->words[i] |= mask;
    }
}

int set_network(const char* host, int64_t prefix, const bounds& to) {
    address low = resolve(host);
    if (low.family <= 0)
        return low.family;
    if (prefix > static_cast<int64_t>(32 * low.count())) {
        verbose_msg(-1, "Invalid mask found");
        return no_address;
    }
    address high = low;
    apply_prefix(prefix, &low, &high);
    to.set(low, high);
    return low.family;
}

// The bounds are taken as they are given, also when the first is the higher one.
int set_address_range(char* value, const bounds& to) {
    const piece_array ends(char_split(value, '-', 0));
    if (!ends[0] || !ends[1] || ends[2]) {
        verbose_msg(-1, "Bad formated address-range");
        return no_address;
    }
    const address low = resolve(ends[0]);
    if (low.family == no_address)
        return no_address;
    const address high = resolve(ends[1]);
    if (high.family == no_address)
        return no_address;
    if (low.family != high.family || low.family == 0) {
        verbose_msg(-1, "Unable to mix ipv4 and ipv6 address");
        return no_address;
    }
    verbose_msg(10, low.family == 4 ? "ipv4 addr found" : "ipv6 addr found");
    to.set(low, high);
    return low.family;
}

// ---- Ranges of numbers ----

template <typename T>
struct range {
    T low;
    T high;
};

template <typename T>
std::optional<range<T>> read_limits(char* value) {
    const piece_array limits(char_split(value, '-', 0));  // a third piece is ignored
    if (!limits[0] || !limits[1]) {
        verbose_msg(-1, "Bad formatted range");
        return {};
    }
    const bool open = std::strcmp(limits[1], "MAX") == 0;
    const range<T> result = {
        static_cast<T>(decimal(limits[0])),
        open ? std::numeric_limits<T>::max() : static_cast<T>(decimal(limits[1]))};
    if (result.low > result.high) {
        verbose_msg(-1, "invalid range: %i-%i", static_cast<int>(result.low),
                    static_cast<int>(result.high));
        return {};
    }
    return result;
}

template <typename T>
std::optional<range<T>> read_range(char* value, bool allow_services) {
    if (std::strchr(value, '-'))
        return read_limits<T>(value);
    if (const auto number = all_digits(value))
        return range<T>{static_cast<T>(*number), static_cast<T>(*number)};
    if (!allow_services) {
        verbose_msg(-1, "Invalid number: %s", value);
        return {};
    }
    const servent* service = getservbyname(value, nullptr);
    if (!service) {
        verbose_msg(-1, "Unknown service name: %s", value);
        return {};
    }
    const uint16_t port = byte_swap(static_cast<uint16_t>(service->s_port));
    return range<T>{port, port};
}

template <typename T>
int parse_range(char* value, int side, T* low1, T* high1, T* low2, T* high2, uint32_t* side_set,
                bool allow_services) {
    constexpr T last_port = 0xFFFF;
    const auto found = read_range<T>(value, allow_services);
    if (!found)
        return -1;
    if (side != FILTER_SIDE_DESTINATION) {
        *low1 = found->low;
        *high1 = found->high;
        *side_set |= FILTER_SIDE_SOURCE;
    }
    if (side != FILTER_SIDE_SOURCE) {
        *low2 = found->low;
        *high2 = found->high;
        *side_set |= FILTER_SIDE_DESTINATION;
    }
    if (!(*side_set & FILTER_SIDE_SOURCE)) {
        *low1 = 0;
        *high1 = last_port;
    }
    if (!(*side_set & FILTER_SIDE_DESTINATION)) {
        *low2 = 0;
        *high2 = last_port;
    }
    return 0;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

int filter_parse_address(char* value, int side, uint32_t* src_low, uint32_t* src_high,
                         uint32_t* dst_low, uint32_t* dst_high, uint32_t* side_set) {
    const bounds to = bounds_of(side, {src_low, src_high}, {dst_low, dst_high}, side_set);
    char* host = value;
    int64_t prefix = 0;
    if (std::strchr(value, '/')) {
        const piece_array pieces(char_split(value, '/', 0));
        if (!pieces[0] || !pieces[1] || pieces[2]) {
            verbose_msg(-1, "Bad formated address/mask");
            return no_address;
        }
        host = pieces[0];
        prefix = decimal(pieces[1]);
    }
    if (std::strchr(host, '-'))
        return set_address_range(host, to);  // a prefix beside a range means nothing
    return set_network(host, prefix, to);
}

int filter_parse_range16(char* value, int side, uint16_t* low1, uint16_t* high1, uint16_t* low2,
                         uint16_t* high2, uint32_t* side_set, int allow_services) {
    return parse_range(value, side, low1, high1, low2, high2, side_set, allow_services != 0);
}

int filter_parse_range32(char* value, int side, uint32_t* low1, uint32_t* high1, uint32_t* low2,
                         uint32_t* high2, uint32_t* side_set, int allow_services) {
    return parse_range(value, side, low1, high1, low2, high2, side_set, allow_services != 0);
}
