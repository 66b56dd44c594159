// The program's filter beside its model: the same rule file to both, the same flows to both.
#pragma once

#include <string>
#include <vector>

#include "kestrelexp/filter.h"
#include "tests/model/filter_model.h"

namespace kestrel_model {

// What differs between the compiled tables; empty: nothing.
std::string compare_tables(const filter_rules& actual, const filter_model& expected);

// The program's verdict on a flow.
uint32_t judge_with_program(const filter_rules& rules, const model_flow& flow);

std::string describe_flow(const model_flow& flow);

// Flows that lie on, just inside and just outside the edges of what the rules name.
class flow_generator {
  public:
    flow_generator(const filter_model& rules, uint64_t seed);

    model_flow next();

  private:
    uint32_t below(uint32_t limit);
    words address();
    uint32_t number(const std::vector<uint32_t>& edges, uint32_t mask);

    uint64_t state_;
    std::vector<words> addresses_;
    std::vector<uint32_t> ports_ = {0, 53, 0xFFFF};
    std::vector<uint32_t> vlans_ = {0, 4095};
    std::vector<uint32_t> interfaces_ = {0, 0xFFFF};
    std::vector<uint32_t> packets_ = {1, 0xFFFFFFFF};
    std::vector<uint32_t> bytes_ = {64, 0xFFFFFFFF};
    std::vector<uint32_t> protocols_ = {1, 6, 17, 58, 132};
};

}  // namespace kestrel_model
