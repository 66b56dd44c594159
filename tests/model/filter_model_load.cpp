// How the model reads rules. See filter_model.h.
#include "tests/model/filter_model.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdlib>

namespace kestrel_model {

namespace {

constexpr uint32_t all_ones = 0xFFFFFFFF;
constexpr model_bounds any_address = {{0, 0, 0, 0}, {all_ones, all_ones, all_ones, all_ones}};

constexpr char either = 'e';
constexpr char source = 's';
constexpr char destination = 'd';

// What stands between separators, without what is empty.
std::vector<std::string> pieces_of(const std::string& text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (c == separator)
            pieces.emplace_back();
        else
            pieces.back() += c;
    }
    std::erase(pieces, "");
    return pieces;
}

bool contains(const std::string& text, char c) {
    return text.find(c) != std::string::npos;
}

bool all_digits(const std::string& text) {
    return text.find_first_not_of("0123456789") == std::string::npos;
}

long decimal(const std::string& text) {
    return std::strtol(text.c_str(), nullptr, 10);
}

struct address {
    int family;  // 4, 6, or 0 for anything else
    words value;
};

std::optional<address> resolve(const std::string& name) {
    addrinfo wanted = {};
    wanted.ai_flags = AI_NUMERICHOST;
    addrinfo* list = nullptr;
    if (getaddrinfo(name.c_str(), nullptr, &wanted, &list) != 0)
        return {};
    address result = {0, {}};
    if (list->ai_family == AF_INET) {
        const auto* four = reinterpret_cast<const sockaddr_in*>(list->ai_addr);
        result = {4, {ntohl(four->sin_addr.s_addr), 0, 0, 0}};
    } else if (list->ai_family == AF_INET6) {
        const auto* six = reinterpret_cast<const sockaddr_in6*>(list->ai_addr);
        result.family = 6;
        for (unsigned byte = 0; byte < 16; ++byte)
            result.value[3 - byte / 4] =
                result.value[3 - byte / 4] << 8 | six->sin6_addr.s6_addr[byte];
    }
    freeaddrinfo(list);
    return result;
}

words minus(const words& high, const words& low) {
    words span;
    for (unsigned i = 0; i < 4; ++i)
        span[i] = high[i] - low[i];
    return span;
}

struct sideless {
    const char* name;
    uint32_t bit;
    const char* what;
    unsigned width;
    model_range model_slow::*range;
};
constexpr sideless sideless_fields[] = {
    {"vlan", 0x0200, "vlans", 16, &model_slow::vlan},
    {"phy", 0x0400, "physical interface id", 16, &model_slow::interface},
    {"packets", 0x1000, "packet count", 32, &model_slow::packets},
    {"bytes", 0x0800, "byte count", 32, &model_slow::bytes},
};

}  // namespace

bool filter_model::refuse(const std::string& message) {
    messages_.push_back(message);
    return false;
}

bool filter_model::load(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        const std::vector<std::string> tokens = pieces_of(line, ' ');
        if (tokens.empty())
            continue;
        if (!(tokens[0] == "fast" ? load_fast(line, tokens) : load_slow(line, tokens)))
            return false;
    }
    sort();
    return true;
}

bool filter_model::load_fast(const std::string& line, const std::vector<std::string>& tokens) {
    model_bounds from = any_address;
    model_bounds to = any_address;
    unsigned sides = 0;
    bool negate = false;
    size_t at = 1;
    if (tokens.size() > 1 && tokens[1] == "not") {
        negate = true;
        at = 2;
        if (tokens.size() == 2)
            return refuse("Invalid rule found");
    } else if (tokens.size() == 1) {
        return refuse("Incomplete rule: " + line);
    }
    char side = either;
    int result = 0;
    while (at < tokens.size()) {
        if (tokens[at] == "src") {
            side = source;
            ++at;
        } else if (tokens[at] == "dst") {
            side = destination;
            ++at;
        }
        if (at + 2 > tokens.size())
            return refuse("Incomplete rule: " + line);
        if (tokens[at] != "addr")
            return refuse("Invalid fast rule. only addr field is allowed");
        result = parse_address(tokens[at + 1], side, from, to, sides);
        if (result == 0)
            return false;
        at += 2;
    }
    if (result != 4 && result != 6)
        return refuse("Invalid rule found");

    model_fast entry = {
        {from.low, minus(from.high, from.low)}, {to.low, minus(to.high, to.low)}, negate};
    std::vector<model_fast>& table = result == 4 ? fast4_ : fast6_;
    if (side != either) {
        table.push_back(entry);
        return true;
    }
    model_fast mirror = entry;
    mirror.destination = any_address;
    if (result == 6)
        mirror.source = any_address;
    entry.source = any_address;
    table.push_back(entry);
    table.push_back(mirror);
    return true;
}

bool filter_model::load_slow(const std::string& line, const std::vector<std::string>& tokens) {
    model_slow rule;
    rule.text = line;
    size_t at = 0;
    if (tokens[at] == "not") {
        rule.negate = true;
        ++at;
    }
    if (at < tokens.size() && tokens[at] == "any") {
        rule.mask |= 0x2000;
        ++at;
    }
    if (!load_groups(rule, tokens, at))
        return false;
    rule.source.high = minus(rule.source.high, rule.source.low);
    rule.destination.high = minus(rule.destination.high, rule.destination.low);
    for (model_range* range : {&rule.source_port, &rule.destination_port, &rule.interface,
                               &rule.packets, &rule.bytes, &rule.vlan})
        range->high -= range->low;
    slow_.push_back(rule);
    return true;
}

bool filter_model::load_groups(model_slow& rule, const std::vector<std::string>& tokens,
                               size_t at) {
    unsigned address_sides = 0;
    unsigned port_sides = 0;
    while (at < tokens.size()) {
        if (rule.mask & 0x2000)
            return refuse("Addon parameters after ANY are not allowed");
        char side = either;
        if (tokens[at] == "src") {
            side = source;
            ++at;
        } else if (tokens[at] == "dst") {
            side = destination;
            ++at;
        }
        if (at + 2 > tokens.size())
            return refuse("Incomplete rule: " + rule.text);
        if (!load_group(rule, side, tokens[at], tokens[at + 1], address_sides, port_sides))
            return false;
        at += 2;
    }
    return true;
}

bool filter_model::load_group(model_slow& rule, char side, const std::string& field,
                              const std::string& value, unsigned& address_sides,
                              unsigned& port_sides) {
    model_range unused;
    unsigned unused_sides = 0;
    if (field == "addr") {
        rule.mask |= side == either ? 0x0004 | 0x0008 : 0x0004;
        rule.family = parse_address(value, side, rule.source, rule.destination, address_sides);
        if (rule.family == 6)
            rule.mask |= 0x0002;
        else if (rule.family == 4)
            rule.mask |= 0x0001;
        else
            return false;
        return true;
    }
    if (field == "port") {
        rule.mask |= side == either ? 0x0010 | 0x0020 : 0x0010;
        return parse_range(value, side, 16, rule.source_port, rule.destination_port, port_sides,
                           true);
    }
    for (const sideless& known : sideless_fields) {
        if (field != known.name)
            continue;
        rule.mask |= known.bit;
        if (side != either)
            return refuse("src|dst prefix not allowed for " + std::string(known.what));
        return parse_range(value, side, known.width, rule.*known.range, unused, unused_sides,
                           false);
    }
    if (field == "proto") {
        rule.mask |= 0x0040;
        if (all_digits(value)) {
            rule.proto = static_cast<uint16_t>(decimal(value));
            return true;
        }
        const protoent* known = getprotobyname(value.c_str());
        if (!known)
            return refuse("Unknown proto: " + value);
        rule.proto = static_cast<uint16_t>(known->p_proto);
        return true;
    }
    if (field == "ipproto") {
        if (value == "ipv4")
            rule.mask |= 0x0001;
        else if (value == "ipv6")
            rule.mask |= 0x0002;
        else
            return refuse("Bad invalid ipproto protocol: " + value);
        return true;
    }
    return refuse("Invalid rule: " + rule.text);
}

int filter_model::parse_address(const std::string& value, char side, model_bounds& from,
                                model_bounds& to, unsigned& sides) {
    if (side == destination) {
        if (!(sides & 1))
            from = any_address;
        sides |= 2;
    } else if (side == source) {
        if (!(sides & 2))
            to = any_address;
        sides |= 1;
    } else {
        sides |= 3;
    }
    model_bounds& written = side == destination ? to : from;

    std::string host = value;
    long prefix = 0;
    if (contains(value, '/')) {
        const std::vector<std::string> parts = pieces_of(value, '/');
        if (parts.size() != 2) {
            refuse("Bad formated address/mask");
            return -1;
        }
        host = parts[0];
        prefix = decimal(parts[1]);
    }

    if (contains(host, '-'))
        return parse_hosts(host, written);
    const std::optional<address> found = resolve(host);
    if (!found) {
        refuse("Unable to resolve host: " + host);
        return -1;
    }
    if (found->family == 0)
        return 0;
    const unsigned count = found->family == 4 ? 1 : 4;
    if (prefix > 32 * static_cast<long>(count)) {
        refuse("Invalid mask found");
        return -1;
    }
    for (unsigned i = 0; i < count; ++i)
        written.low[i] = written.high[i] = found->value[i];
    if (prefix < 1)
        return found->family;
    // Bit by bit: every bit after the prefix is 0 in the lower bound and 1 in the upper one.
    for (unsigned bit = 0; bit < 32 * count - static_cast<unsigned>(prefix); ++bit) {
        written.low[bit / 32] &= ~(1u << bit % 32);
        written.high[bit / 32] |= 1u << bit % 32;
    }
    return found->family;
}

int filter_model::parse_hosts(const std::string& host, model_bounds& written) {
    const std::vector<std::string> parts = pieces_of(host, '-');
    if (parts.size() != 2) {
        refuse("Bad formated address-range");
        return -1;
    }
    address ends[2];
    for (unsigned i = 0; i < 2; ++i) {
        const std::optional<address> found = resolve(parts[i]);
        if (!found) {
            refuse("Unable to resolve host: " + parts[i]);
            return -1;
        }
        ends[i] = *found;
    }
    if (ends[0].family != ends[1].family || ends[0].family == 0) {
        refuse("Unable to mix ipv4 and ipv6 address");
        return -1;
    }
    for (unsigned i = 0; i < (ends[0].family == 4 ? 1 : 4); ++i) {
        written.low[i] = ends[0].value[i];
        written.high[i] = ends[1].value[i];
    }
    return ends[0].family;
}

std::optional<model_range> filter_model::range_of(const std::string& value, unsigned bits,
                                                  bool services) {
    const uint32_t most = bits == 16 ? 0xFFFF : all_ones;
    const auto number = [most](const std::string& text) {
        return static_cast<uint32_t>(decimal(text)) & most;
    };
    if (contains(value, '-')) {
        const std::vector<std::string> parts = pieces_of(value, '-');
        if (parts.size() < 2) {
            refuse("Bad formatted range");
            return {};
        }
        const model_range range = {number(parts[0]), parts[1] == "MAX" ? most : number(parts[1])};
        if (range.low <= range.high)
            return range;
        refuse("invalid range: " + std::to_string(static_cast<int32_t>(range.low)) + "-" +
               std::to_string(static_cast<int32_t>(range.high)));
        return {};
    }
    if (all_digits(value))
        return model_range{number(value), number(value)};
    if (!services) {
        refuse("Invalid number: " + value);
        return {};
    }
    const servent* known = getservbyname(value.c_str(), nullptr);
    if (!known) {
        refuse("Unknown service name: " + value);
        return {};
    }
    const uint32_t port = ntohs(static_cast<uint16_t>(known->s_port));
    return model_range{port, port};
}

bool filter_model::parse_range(const std::string& value, char side, unsigned bits,
                               model_range& first, model_range& second, unsigned& sides,
                               bool services) {
    const std::optional<model_range> range = range_of(value, bits, services);
    if (!range)
        return false;
    if (side != destination) {
        first = *range;
        sides |= 1;
        if (side == source && !(sides & 2))
            second = {0, 65535};
    }
    if (side != source) {
        second = *range;
        sides |= 2;
        if (side == destination && !(sides & 1))
            first = {0, 65535};
    }
    return true;
}

}  // namespace kestrel_model
