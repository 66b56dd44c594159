// Values of filter rules: addresses, ranges of numbers, names of services. Main thread, while the
// program starts; names are resolved here and never again.
#include "filter/filter_values.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/address.h"
#include "base/log.h"
#include "base/split.h"
#include "base/wire.h"
#include "kestrelexp/filter.h"

namespace kestrel {

std::optional<int64_t> all_digits(const char* text) {
    if (text[std::strspn(text, "0123456789")] != '\0')
        return {};
    return std::strtoll(text, nullptr, 10);
}

namespace {

constexpr int faulty = -1;

int64_t decimal(const char* text) {
    return std::strtoll(text, nullptr, 10);  // what is no digit ends the number: "8x" is 8
}

// ---- Addresses ----

size_t count_words(const ip_address& address) {
    return address.family == AF_INET ? 1 : FILTER_ADDRESS_WORDS;
}

// 4, 6, or 0 for what can stand in no rule.
int version_of(const ip_address& address) {
    return address.family == AF_INET ? 4 : address.family == AF_INET6 ? 6 : 0;
}

std::optional<ip_address> resolve(const char* host) {
    auto found = resolve_address(host);
    if (!found)
        verbose_msg(-1, "Unable to resolve host: %s", host);
    return found;
}

struct bounds {
    uint32_t* low;
    uint32_t* high;

    void open() const {
        std::fill_n(low, FILTER_ADDRESS_WORDS, 0u);
        std::fill_n(high, FILTER_ADDRESS_WORDS, ~0u);
    }
    void set(const ip_address& from, const ip_address& to) const {
        std::copy_n(from.words, count_words(from), low);
        std::copy_n(to.words, count_words(from), high);
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

// Bits after the prefix become 0 in the lower bound, 1 in the upper one. A prefix of 0 means the
// address alone: "/0" is far more often a slip than a wish for every address.
void apply_prefix(int64_t prefix, ip_address* low, ip_address* high) {
    const size_t count = count_words(*low);
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
    const std::optional<ip_address> address = resolve(host);
    if (!address)
        return faulty;
    if (version_of(*address) == 0)
        return 0;
    if (prefix > static_cast<int64_t>(32 * count_words(*address))) {
        verbose_msg(-1, "Invalid mask found");
        return faulty;
    }
    ip_address low = *address;
    ip_address high = *address;
    apply_prefix(prefix, &low, &high);
    to.set(low, high);
    return version_of(low);
}

// The bounds are taken as they are given, also when the first is the higher one.
int set_address_range(const char* value, const bounds& to) {
    const split ends(value, '-');
    if (ends.size() != 2) {
        verbose_msg(-1, "Bad formated address-range");
        return faulty;
    }
    const std::optional<ip_address> low = resolve(ends[0]);
    if (!low)
        return faulty;
    const std::optional<ip_address> high = resolve(ends[1]);
    if (!high)
        return faulty;
    const int version = version_of(*low);
    if (version == 0 || version != version_of(*high)) {
        verbose_msg(-1, "Unable to mix ipv4 and ipv6 address");
        return faulty;
    }
    verbose_msg(10, version == 4 ? "ipv4 addr found" : "ipv6 addr found");
    to.set(*low, *high);
    return version;
}

// A prefix beside a range means nothing.
int set_addresses(const char* hosts, int64_t prefix, const bounds& to) {
    return std::strchr(hosts, '-') ? set_address_range(hosts, to) : set_network(hosts, prefix, to);
}

// ---- Ranges of numbers ----

template <typename T>
struct range {
    T low;
    T high;
};

template <typename T>
std::optional<range<T>> read_limits(const char* value) {
    const split limits(value, '-');  // a third piece is ignored
    if (limits.size() < 2) {
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
std::optional<range<T>> read_range(const char* value, bool allow_services) {
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
int parse_range(const char* value, int side, T* low1, T* high1, T* low2, T* high2,
                uint32_t* side_set, bool allow_services) {
    constexpr T last_port = 0xFFFF;
    const auto found = read_range<T>(value, allow_services);
    if (!found)
        return faulty;
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

int filter_parse_address(const char* value, int side, uint32_t* src_low, uint32_t* src_high,
                         uint32_t* dst_low, uint32_t* dst_high, uint32_t* side_set) {
    const bounds to = bounds_of(side, {src_low, src_high}, {dst_low, dst_high}, side_set);
    if (!std::strchr(value, '/'))
        return set_addresses(value, 0, to);
    const split pieces(value, '/');
    if (pieces.size() != 2) {
        verbose_msg(-1, "Bad formated address/mask");
        return faulty;
    }
    return set_addresses(pieces[0], decimal(pieces[1]), to);
}

int filter_parse_range16(const char* value, int side, uint16_t* low1, uint16_t* high1,
                         uint16_t* low2, uint16_t* high2, uint32_t* side_set, int allow_services) {
    return parse_range(value, side, low1, high1, low2, high2, side_set, allow_services != 0);
}

int filter_parse_range32(const char* value, int side, uint32_t* low1, uint32_t* high1,
                         uint32_t* low2, uint32_t* high2, uint32_t* side_set, int allow_services) {
    return parse_range(value, side, low1, high1, low2, high2, side_set, allow_services != 0);
}
