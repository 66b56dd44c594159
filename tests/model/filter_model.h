// A second filter: compiles the lines of a rule file and judges flows, step by step as the rules
// are told, with values and vectors. The tests hold the program's filter against it. Addresses that
// are not numeric do not resolve here.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel_model {

using words = std::array<uint32_t, 4>;  // word 0 is the least significant; IPv4 is word 0 alone

inline uint64_t low_half(const words& value) {
    return uint64_t{value[1]} << 32 | value[0];
}
inline uint64_t high_half(const words& value) {
    return uint64_t{value[3]} << 32 | value[2];
}

// What a filter looks at.
struct model_flow {
    int version = 4;
    words source = {};
    words destination = {};
    uint8_t protocol = 0;
    uint16_t source_port = 0;
    uint16_t destination_port = 0;
    uint16_t interface = 0;
    uint32_t packets = 0;
    uint32_t bytes = 0;
    std::optional<std::vector<uint16_t>> vlans;  // nothing: the record has no such block
};

struct model_range {
    uint32_t low = 0;
    uint32_t high = 0;  // "span" once the rule is finished
};

struct model_bounds {
    words low = {};
    words high = {};  // "span" once the rule is finished
};

struct model_fast {
    model_bounds source;
    model_bounds destination;
    bool negate = false;
};

struct model_slow {
    uint32_t mask = 0;
    model_bounds source;
    model_bounds destination;
    int family = 0;
    uint16_t proto = 0;
    model_range source_port;
    model_range destination_port;
    model_range interface;
    model_range packets;
    model_range bytes;
    model_range vlan;
    bool negate = false;
    std::string text;
};

class filter_model {
  public:
    // False when a line is refused; messages() then ends with the reason, if there is one to tell.
    bool load(const std::vector<std::string>& lines);

    // 0 keeps the flow, 1 drops it.
    uint32_t test(const model_flow& flow);

    const std::vector<model_fast>& fast4() const { return fast4_; }
    const std::vector<model_fast>& fast6() const { return fast6_; }
    const std::vector<model_slow>& slow() const { return slow_; }
    const std::vector<std::string>& messages() const { return messages_; }

    // How often things happened, so that a test can tell that it was worth running.
    struct happenings {
        uint64_t fast4_hits = 0;
        uint64_t fast6_hits = 0;
        uint64_t fast_misses = 0;
        uint64_t fast_refusals = 0;
        uint64_t slow_keeps = 0;
        uint64_t slow_refusals = 0;
        uint64_t drops_at_once = 0;
        uint64_t no_match = 0;
    } happened;

  private:
    bool load_fast(const std::string& line, const std::vector<std::string>& tokens);
    bool load_slow(const std::string& line, const std::vector<std::string>& tokens);
    bool load_groups(model_slow& rule, const std::vector<std::string>& tokens, size_t at);
    bool load_group(model_slow& rule, char side, const std::string& field, const std::string& value,
                    unsigned& address_sides, unsigned& port_sides);
    int parse_address(const std::string& value, char side, model_bounds& source,
                      model_bounds& destination, unsigned& sides);
    std::optional<model_range> range_of(const std::string& value, unsigned bits, bool services);
    int parse_hosts(const std::string& host, model_bounds& written);
    bool parse_range(const std::string& value, char side, unsigned bits, model_range& first,
                     model_range& second, unsigned& sides, bool services);
    void sort();
    bool refuse(const std::string& message);
    uint32_t test_slow(const model_flow& flow);

    std::vector<model_fast> fast4_;
    std::vector<model_fast> fast6_;
    std::vector<model_slow> slow_;
    std::vector<std::string> messages_;
};

}  // namespace kestrel_model
