// Random rule files: most of them good, some with a fault, values drawn from a small stock so that
// rules meet each other and the flows.
#pragma once

#include <random>
#include <string>
#include <vector>

namespace kestrel_model {

class rule_generator {
  public:
    explicit rule_generator(uint32_t seed) : random_(seed) {}

    std::vector<std::string> file();

  private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    bool one_in(uint32_t n) { return below(n) == 0; }
    std::string pick(const std::vector<std::string>& from) {
        return from[below(static_cast<uint32_t>(from.size()))];
    }

    std::string side();
    std::string host4();
    std::string host6();
    std::string address();
    std::string ports();
    std::string range(uint32_t limit);
    std::string group();
    std::string fast_rule();
    std::string slow_rule();
    std::string faulty_rule();

    std::mt19937 random_;
    bool spoilt_ = false;    // this file gets a fault
    uint32_t families_ = 0;  // of this file's addresses: 0 both, 1 IPv4, 2 IPv6
};

}  // namespace kestrel_model
