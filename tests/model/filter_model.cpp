// How the model sorts and judges. See filter_model.h.
#include "tests/model/filter_model.h"

#include <algorithm>
#include <tuple>

namespace kestrel_model {

namespace {

bool inside32(uint32_t value, uint32_t low, uint32_t span) {
    return value - low <= span;
}

bool inside16(uint16_t value, const model_range& range) {
    return ((value - range.low) & 0xFFFF) <= range.high;
}

bool inside128(const words& value, const words& base, const words& span) {
    const uint64_t low = low_half(value) - low_half(base);
    const uint64_t high = high_half(value) - high_half(base);
    if (low != 0)
        return low <= low_half(span);
    return high == 0 || high <= high_half(span);
}

enum class place { below, above, here };

place place4(const model_fast& e, uint32_t s, uint32_t d) {
    if (s < e.source.low[0])
        return place::below;
    if (s - e.source.low[0] > e.source.high[0])
        return place::above;
    if (d < e.destination.low[0])
        return place::below;
    if (d - e.destination.low[0] > e.destination.high[0])
        return place::above;
    return place::here;
}

place place6(const model_fast& e, const words& s, const words& d) {
    struct step {
        uint32_t low;
        uint32_t compared_with_low;
        uint32_t value;
        uint32_t span;
    };
    const words& sl = e.source.low;
    const words& sp = e.source.high;
    const words& dl = e.destination.low;
    const words& dp = e.destination.high;
    const step steps[] = {
        {sl[3], s[3], s[3], sp[3]}, {sl[2], s[2], s[2], sp[2]}, {sl[1], s[1], s[1], sp[1]},
        {sl[0], s[0], s[0], sp[0]}, {dl[3], d[0], d[3], dp[3]}, {dl[2], s[3], d[2], dp[2]},
        {dl[1], s[2], d[1], dp[1]}, {dl[0], s[1], d[0], dp[0]},
    };
    for (const step& at : steps) {
        if (at.low > at.compared_with_low)
            return place::below;
        if (at.value - at.low > at.span)
            return place::above;
    }
    return place::here;
}

template <typename Place>
const model_fast* search(const std::vector<model_fast>& table, Place place_in) {
    int64_t lo = 0;
    int64_t hi = static_cast<int64_t>(table.size());
    while (lo < hi) {
        const int64_t mid = (lo + hi) / 2;
        const model_fast& entry = table[static_cast<size_t>(mid)];
        switch (place_in(entry)) {
            case place::below:
                hi = mid;
                break;
            case place::above:
                lo = mid + 1;
                break;
            case place::here:
                return &entry;
        }
    }
    return nullptr;
}

// The address part of a rule's computed mask; nothing when the rule is for the other family.
std::optional<uint32_t> address_mask(const model_slow& r, const model_flow& flow) {
    const auto in4 = [](const words& value, const model_bounds& bounds) {
        return inside32(value[0], bounds.low[0], bounds.high[0]);
    };
    if (r.mask & 0x0001) {
        if (flow.version != 4)
            return {};
        if (!(r.mask & 0x0004))
            return 0x0001;
        if (r.mask & 0x0008)
            return in4(flow.destination, r.source) || in4(flow.source, r.source) ? 0x000D : 0x0001;
        return in4(flow.destination, r.destination) && in4(flow.source, r.source) ? 0x0005 : 0x0001;
    }
    if (r.mask & 0x0002) {
        if (flow.version != 6)
            return {};
        if (!(r.mask & 0x0004))
            return 0x0002;
        if (r.mask & 0x0008)
            return inside128(flow.source, r.destination.low, r.source.high) ||
                           inside128(flow.source, r.source.high, r.source.high)
                       ? 0x000E
                       : 0x0002;
        return inside128(flow.destination, r.destination.low, r.destination.high) &&
                       inside128(flow.source, r.source.high, r.source.high)
                   ? 0x0006
                   : 0x0002;
    }
    return 0;
}

uint32_t port_mask(const model_slow& r, const model_flow& flow) {
    if (!(r.mask & 0x0010))
        return 0;
    if (flow.protocol != 17 && flow.protocol != 132 && flow.protocol != 6)
        return 0;
    const bool source_in_first = inside16(flow.source_port, r.source_port);
    if (r.mask & 0x0020)
        return source_in_first || inside16(flow.destination_port, r.source_port) ? 0x0030 : 0;
    return source_in_first && inside16(flow.destination_port, r.destination_port) ? 0x0010 : 0;
}

uint32_t vlan_mask(const model_slow& r, const model_flow& flow) {
    if (!(r.mask & 0x0200) || !flow.vlans)
        return 0;
    for (const uint16_t id : *flow.vlans) {
        if (inside16(id, r.vlan))
            return 0x0200;
    }
    return 0;
}

bool drops_at_once(const model_slow& r, const model_flow& flow) {
    if ((r.mask & 0x0400) && inside16(flow.interface, r.interface))
        return true;
    if ((r.mask & 0x0800) && (flow.bytes - r.bytes.low) % 65536 <= r.bytes.high)
        return true;
    return (r.mask & 0x1000) && (flow.packets - r.packets.low) % 65536 <= r.packets.high;
}

bool by_ipv4(const model_fast& a, const model_fast& b) {
    return std::tuple(a.source.low[0], a.destination.low[0]) <
           std::tuple(b.source.low[0], b.destination.low[0]);
}

bool by_ipv6(const model_fast& a, const model_fast& b) {
    const auto keys = [](const model_fast& e) {
        return std::tuple(low_half(e.source.low), high_half(e.source.low),
                          low_half(e.destination.low), high_half(e.destination.low));
    };
    return keys(a) < keys(b);
}

}  // namespace

void filter_model::sort() {
    std::stable_sort(fast4_.begin(), fast4_.end(), by_ipv4);
    std::stable_sort(fast6_.begin(), fast6_.end(), by_ipv6);
}

uint32_t filter_model::test(const model_flow& flow) {
    const model_fast* hit = nullptr;
    if (flow.version == 4 && !fast4_.empty()) {
        hit = search(fast4_, [&](const model_fast& e) {
            return place4(e, flow.source[0], flow.destination[0]);
        });
        happened.fast4_hits += hit != nullptr;
    } else if (flow.version == 6 && !fast6_.empty()) {
        hit = search(fast6_,
                     [&](const model_fast& e) { return place6(e, flow.source, flow.destination); });
        happened.fast6_hits += hit != nullptr;
    } else {
        return test_slow(flow);
    }
    if (!hit) {
        ++happened.fast_misses;
        return 1;
    }
    if (hit->negate) {
        ++happened.fast_refusals;
        return 1;
    }
    return slow_.empty() ? 0 : test_slow(flow);
}

uint32_t filter_model::test_slow(const model_flow& flow) {
    for (const model_slow& r : slow_) {
        const std::optional<uint32_t> address = address_mask(r, flow);
        if (!address)
            continue;
        uint32_t c = *address | port_mask(r, flow) | vlan_mask(r, flow);
        if (drops_at_once(r, flow)) {
            ++happened.drops_at_once;
            return 1;
        }
        if ((r.mask & 0x0040) && r.proto == flow.protocol)
            c |= 0x0040;
        if (r.mask & 0x2000)
            c |= 0x2000;
        if (c != r.mask)
            continue;
        ++(r.negate ? happened.slow_refusals : happened.slow_keeps);
        return r.negate ? 1 : 0;
    }
    ++happened.no_match;
    return 1;
}

}  // namespace kestrel_model
