// A filter as text, for the log. Main thread, while the program starts.
#include "filter/filter_dump.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <span>

#include "base/log.h"
#include "base/wire.h"

namespace kestrel {
namespace {

// Pieces are short: numbers and two addresses at most.
__attribute__((format(printf, 1, 2))) std::string format(const char* text, ...) {
    char buffer[64];
    va_list arguments;
    va_start(arguments, text);
    std::vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    return buffer;
}

std::string address4(uint32_t address) {
    const uint32_t wire = byte_swap(address);
    char text[INET_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET, &wire, text, sizeof text);
}

std::string address6(const uint32_t* words) {
    uint32_t wire[FILTER_ADDRESS_WORDS];
    for (size_t i = 0; i < FILTER_ADDRESS_WORDS; ++i)
        wire[i] = byte_swap(words[FILTER_ADDRESS_WORDS - 1 - i]);
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET6, wire, text, sizeof text);
}

std::string range4(uint32_t low, uint32_t span) {
    return address4(low) + "-" + address4(low + span) + " ";
}

std::string range6(const uint32_t* low, const uint32_t* span) {
    uint32_t high[FILTER_ADDRESS_WORDS];
    for (size_t i = 0; i < FILTER_ADDRESS_WORDS; ++i)
        high[i] = low[i] + span[i];
    return address6(low) + "-" + address6(high) + " ";
}

std::string addresses(const slow_rule& rule) {
    const auto range = [&rule](const uint32_t* low, const uint32_t* span) {
        return rule.family == 6 ? range6(low, span) : range4(low[0], span[0]);
    };
    const std::string source = range(rule.src_low, rule.src_span);
    if (rule.mask & FILTER_ADDRESS_EITHER)
        return "addr " + source;
    return "src addr " + source + "dst addr " + range(rule.dst_low, rule.dst_span);
}

std::string numbers(const char* name, uint32_t low, uint32_t span) {
    return format("%s %u-%u ", name, low, low + span);
}

std::string ports(const slow_rule& rule) {
    if (rule.mask & FILTER_PORT_EITHER)
        return numbers("port", rule.sport_low, rule.sport_span);
    return numbers("src port", rule.sport_low, rule.sport_span) +
           numbers("dst port", rule.dport_low, rule.dport_span);
}

template <typename Row>
void dump_fast(std::span<const Row> rows) {
    for (const Row& row : rows)
        verbose_msg(7, "fast rule : %s", describe(row).c_str());
}

void dump_rules(const filter_rules& rules) {
    dump_fast<fast4_entry>({rules.fast4, rules.fast4_count});
    dump_fast<fast6_entry>({rules.fast6, rules.fast6_count});
    for (const slow_rule& rule : std::span(rules.slow, rules.slow_count)) {
        const int index = static_cast<int>(rule.index);
        verbose_msg(7, "rule %i string: %s", index, rule.text);
        verbose_msg(7, "rule %i data  : %s", index, describe(rule).c_str());
    }
}

}  // namespace

std::string describe(const fast4_entry& entry) {
    return std::string(entry.negate ? "not " : "") + "src addr " +
           range4(entry.src_low, entry.src_span) + "dst addr " +
           range4(entry.dst_low, entry.dst_span);
}

std::string describe(const fast6_entry& entry) {
    return std::string(entry.negate ? "not " : "") + "src addr " +
           range6(entry.src_low, entry.src_span) + "dst addr " +
           range6(entry.dst_low, entry.dst_span);
}

std::string describe(const slow_rule& rule) {
    std::string text = format("mask: %X, ", rule.mask);
    if (rule.negate)
        text += "not ";
    if (rule.mask & FILTER_ANY)
        text += "any ";
    if (rule.mask & FILTER_IPV4)
        text += "ipproto ipv4 ";
    else if (rule.mask & FILTER_IPV6)
        text += "ipproto ipv6 ";
    if (rule.mask & FILTER_ADDRESS)
        text += addresses(rule);
    if (rule.mask & FILTER_PROTO)
        text += format("proto %i ", rule.proto);
    if (rule.mask & FILTER_PORT)
        text += ports(rule);
    if (rule.mask & FILTER_VLAN)
        text += numbers("vlan", rule.vlan_low, rule.vlan_span);
    if (rule.mask & FILTER_PHY)
        text += numbers("phy", rule.phy_low, rule.phy_span);
    if (rule.mask & FILTER_BYTES)
        text += numbers("bytes", rule.bytes_low, rule.bytes_span);
    if (rule.mask & FILTER_PACKETS)
        text += numbers("packets", rule.packets_low, rule.packets_span);
    return text;
}

void filter_dump(const filter_rules& rules) {
    if (verbose(7))
        dump_rules(rules);
    verbose_msg(0, "Filter OK");
    verbose_msg(5, "size:  fast4: %u, fast6: %u, slow: %u", unsigned{sizeof(fast4_entry)},
                unsigned{sizeof(fast6_entry)}, unsigned{sizeof(slow_rule)});
    verbose_msg(5, "count: fast4: %u, fast6: %u, slow: %u",
                static_cast<unsigned>(rules.fast4_count), static_cast<unsigned>(rules.fast6_count),
                static_cast<unsigned>(rules.slow_count));
}

}  // namespace kestrel
