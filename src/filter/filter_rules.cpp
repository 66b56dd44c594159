// The grammar of rule files: turns lines into the entries and rules of a filter. Main thread, while
// the program starts. A file is taken whole or not at all.
#include "filter/filter_rules.h"

#include <netdb.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "base/heap.h"
#include "base/log.h"
#include "base/split.h"
#include "filter/filter_dump.h"
#include "filter/filter_values.h"

namespace kestrel {
namespace {

// ---- What fast and slow rules share: groups of [src|dst] FIELD VALUE ----

// The words of a line that are not read yet, closed by null.
using tokens = const char* const*;

bool refuse(const char* message) {
    verbose_msg(-1, "%s", message);
    return false;
}

bool take(tokens& token, const char* word) {
    if (!*token || std::strcmp(*token, word) != 0)
        return false;
    ++token;
    return true;
}

void take_side(tokens& token, filter_side* side) {
    if (take(token, "src"))
        *side = FILTER_SIDE_SOURCE;
    else if (take(token, "dst"))
        *side = FILTER_SIDE_DESTINATION;
}

struct group {
    const char* field;
    const char* value;
};

bool take_group(const char* line, tokens& token, group* result) {
    if (!token[0] || !token[1]) {
        verbose_msg(-1, "Incomplete rule: %s", line);
        return false;
    }
    *result = {token[0], token[1]};
    token += 2;
    return true;
}

void high_to_span(const uint32_t* low, uint32_t* high) {
    for (size_t i = 0; i < FILTER_ADDRESS_WORDS; ++i)
        high[i] -= low[i];
}

// ---- Fast rules: "fast" ["not"] {["src"|"dst"] "addr" VALUE} ----

constexpr uint32_t all_ones = 0xFFFFFFFF;

// Working bounds of a fast rule: source and destination open until a group closes them.
struct fast_bounds {
    uint32_t src_low[FILTER_ADDRESS_WORDS] = {};
    uint32_t src_high[FILTER_ADDRESS_WORDS] = {all_ones, all_ones, all_ones, all_ones};
    uint32_t dst_low[FILTER_ADDRESS_WORDS] = {};
    uint32_t dst_high[FILTER_ADDRESS_WORDS] = {all_ones, all_ones, all_ones, all_ones};
    uint32_t sides = 0;
};

void open(uint32_t (&low)[FILTER_ADDRESS_WORDS], uint32_t (&span)[FILTER_ADDRESS_WORDS]) {
    std::fill(std::begin(low), std::end(low), 0u);
    std::fill(std::begin(span), std::end(span), all_ones);
}

// A rule without a side becomes two entries, of which at least one takes every flow of the family:
// the value stands in the source bounds alone, and those are opened; the destination was never
// closed. See docs/filter-rules.md.
void append_fast4(filter_rules& rules, const fast_bounds& b, bool negate, bool mirror) {
    const fast4_entry entry = {b.src_low[0], b.src_high[0] - b.src_low[0], b.dst_low[0],
                               b.dst_high[0] - b.dst_low[0], negate};
    if (mirror)
        append(rules.fast4, rules.fast4_count) = {0, all_ones, entry.dst_low, entry.dst_span,
                                                  entry.negate};
    append(rules.fast4, rules.fast4_count) = entry;
}

void append_fast6(filter_rules& rules, fast_bounds& b, bool negate, bool mirror) {
    high_to_span(b.src_low, b.src_high);
    high_to_span(b.dst_low, b.dst_high);
    fast6_entry& first = append(rules.fast6, rules.fast6_count);
    std::copy(std::begin(b.src_low), std::end(b.src_low), first.src_low);
    std::copy(std::begin(b.src_high), std::end(b.src_high), first.src_span);
    std::copy(std::begin(b.dst_low), std::end(b.dst_low), first.dst_low);
    std::copy(std::begin(b.dst_high), std::end(b.dst_high), first.dst_span);
    first.negate = negate;
    if (!mirror)
        return;
    open(first.src_low, first.src_span);
    fast6_entry& second = append(rules.fast6, rules.fast6_count);
    open(second.src_low, second.src_span);
    open(second.dst_low, second.dst_span);
    second.negate = negate;
}

bool compile_fast(filter_rules& rules, const char* line, tokens token) {
    fast_bounds bounds;
    filter_side side = FILTER_SIDE_EITHER;  // holds until another is named
    int family = -1;
    const bool negate = take(token, "not");
    if (!*token && !negate) {
        verbose_msg(-1, "Incomplete rule: %s", line);
        return false;
    }
    while (*token) {
        group next;
        take_side(token, &side);
        if (!take_group(line, token, &next))
            return false;
        if (std::strcmp(next.field, "addr") != 0)
            return refuse("Invalid fast rule. only addr field is allowed");
        family = filter_parse_address(next.value, side, bounds.src_low, bounds.src_high,
                                      bounds.dst_low, bounds.dst_high, &bounds.sides);
        if (family == 0)
            return false;
    }
    const bool mirror = side == FILTER_SIDE_EITHER;
    if (family == 4)
        append_fast4(rules, bounds, negate, mirror);
    else if (family == 6)
        append_fast6(rules, bounds, negate, mirror);
    else
        return refuse("Invalid rule found");
    if (mirror)
        verbose_msg(10, "Need to create mirror rule");
    return true;
}

// ---- Slow rules: ["not"] ["any"] {["src"|"dst"] FIELD VALUE} ----

// A rule being made. Until it is finished its spans hold upper bounds.
struct slow_builder {
    slow_rule& rule;
    filter_side side = FILTER_SIDE_EITHER;  // of the group at hand
    uint32_t address_sides = 0;
    uint32_t port_sides = 0;
};

using value_reader = bool(slow_builder& to, const char* value);

bool read_address(slow_builder& to, const char* value) {
    slow_rule& rule = to.rule;
    const int family = filter_parse_address(value, to.side, rule.src_low, rule.src_span,
                                            rule.dst_low, rule.dst_span, &to.address_sides);
    if (family <= 0)
        return false;
    rule.family = static_cast<uint16_t>(family);
    rule.mask |= family == 6 ? FILTER_IPV6 : FILTER_IPV4;
    return true;
}

bool read_ports(slow_builder& to, const char* value) {
    slow_rule& rule = to.rule;
    return filter_parse_range16(value, to.side, &rule.sport_low, &rule.sport_span, &rule.dport_low,
                                &rule.dport_span, &to.port_sides, 1) == 0;
}

template <uint16_t slow_rule::*low, uint16_t slow_rule::*span>
bool read_range16(slow_builder& to, const char* value) {
    uint16_t* first = &(to.rule.*low);
    uint16_t* last = &(to.rule.*span);
    uint32_t sides = 0;
    return filter_parse_range16(value, FILTER_SIDE_EITHER, first, last, first, last, &sides, 0) ==
           0;
}

template <uint32_t slow_rule::*low, uint32_t slow_rule::*span>
bool read_range32(slow_builder& to, const char* value) {
    uint32_t* first = &(to.rule.*low);
    uint32_t* last = &(to.rule.*span);
    uint32_t sides = 0;
    return filter_parse_range32(value, FILTER_SIDE_EITHER, first, last, first, last, &sides, 0) ==
           0;
}

bool read_protocol(slow_builder& to, const char* value) {
    if (const auto number = all_digits(value)) {
        to.rule.proto = static_cast<uint16_t>(*number);
        return true;
    }
    const protoent* protocol = getprotobyname(value);
    if (!protocol) {
        verbose_msg(-1, "Unknown proto: %s", value);
        return false;
    }
    to.rule.proto = static_cast<uint16_t>(protocol->p_proto);
    return true;
}

bool read_ip_version(slow_builder& to, const char* value) {
    if (std::strcmp(value, "ipv4") == 0)
        to.rule.mask |= FILTER_IPV4;
    else if (std::strcmp(value, "ipv6") == 0)
        to.rule.mask |= FILTER_IPV6;
    else {
        verbose_msg(-1, "Bad invalid ipproto protocol: %s", value);
        return false;
    }
    return true;
}

struct field {
    const char* keyword;
    uint32_t condition;        // always set
    uint32_t either_side;      // set as well when the group names no side
    const char* side_refusal;  // what is said to a side; null: a side is allowed, or ignored
    value_reader* read;
};

constexpr field fields[] = {
    {"addr", FILTER_ADDRESS, FILTER_ADDRESS_EITHER, nullptr, read_address},
    {"port", FILTER_PORT, FILTER_PORT_EITHER, nullptr, read_ports},
    {"vlan", FILTER_VLAN, 0, "src|dst prefix not allowed for vlans",
     read_range16<&slow_rule::vlan_low, &slow_rule::vlan_span>},
    {"phy", FILTER_PHY, 0, "src|dst prefix not allowed for physical interface id",
     read_range16<&slow_rule::phy_low, &slow_rule::phy_span>},
    {"packets", FILTER_PACKETS, 0, "src|dst prefix not allowed for packet count",
     read_range32<&slow_rule::packets_low, &slow_rule::packets_span>},
    {"bytes", FILTER_BYTES, 0, "src|dst prefix not allowed for byte count",
     read_range32<&slow_rule::bytes_low, &slow_rule::bytes_span>},
    {"proto", FILTER_PROTO, 0, nullptr, read_protocol},
    {"ipproto", 0, 0, nullptr, read_ip_version},
};

bool compile_group(slow_builder& to, const group& next) {
    const field* row = std::find_if(std::begin(fields), std::end(fields), [&next](const field& f) {
        return std::strcmp(f.keyword, next.field) == 0;
    });
    if (row == std::end(fields)) {
        verbose_msg(-1, "Invalid rule: %s", to.rule.text);
        return false;
    }
    to.rule.mask |= row->condition;
    if (to.side == FILTER_SIDE_EITHER)
        to.rule.mask |= row->either_side;
    else if (row->side_refusal)
        return refuse(row->side_refusal);
    return row->read(to, next.value);
}

void finish(slow_rule& rule) {
    high_to_span(rule.src_low, rule.src_span);
    high_to_span(rule.dst_low, rule.dst_span);
    rule.sport_span = static_cast<uint16_t>(rule.sport_span - rule.sport_low);
    rule.dport_span = static_cast<uint16_t>(rule.dport_span - rule.dport_low);
    rule.phy_span = static_cast<uint16_t>(rule.phy_span - rule.phy_low);
    rule.vlan_span = static_cast<uint16_t>(rule.vlan_span - rule.vlan_low);
    rule.packets_span -= rule.packets_low;
    rule.bytes_span -= rule.bytes_low;
}

bool compile_slow(filter_rules& rules, const char* line, tokens token) {
    const uint32_t index = static_cast<uint32_t>(rules.slow_count);
    slow_builder to = {append(rules.slow, rules.slow_count)};
    to.rule.index = index;
    to.rule.text = heap_copy(line, std::strlen(line)).release();
    to.rule.negate = take(token, "not");
    if (take(token, "any"))
        to.rule.mask = FILTER_ANY;
    while (*token) {
        group next;
        if (to.rule.mask & FILTER_ANY)
            return refuse("Addon parameters after ANY are not allowed");
        to.side = FILTER_SIDE_EITHER;
        take_side(token, &to.side);
        if (!take_group(line, token, &next) || !compile_group(to, next))
            return false;
    }
    finish(to.rule);
    return true;
}

// ---- Files ----

bool compile_line(filter_rules& rules, const char* line) {
    const split words(line, ' ');
    tokens token = words.begin();
    if (words.size() == 0) {
        verbose_msg(10, "blank rule found");
        return true;
    }
    const bool is_fast = take(token, "fast");
    verbose_msg(10, is_fast ? "fast filter rule: %s" : "slow filter rule: %s", line);
    return is_fast ? compile_fast(rules, line, token) : compile_slow(rules, line, token);
}

}  // namespace

filter_owner filter_load(const char* path) {
    filter_owner rules = make_filter();
    const config_lines lines(path ? read_config(path) : nullptr);
    if (!lines) {
        verbose_msg(-1, "Unable to read filter config");
        return nullptr;
    }
    for (char** line = lines.get(); *line; ++line) {
        if (!compile_line(*rules, *line))
            return nullptr;
    }
    complete_filter(*rules);
    filter_dump(*rules);
    return rules;
}

}  // namespace kestrel
