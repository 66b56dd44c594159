// Frames for the comparison of the two parsers: well-formed ones with every header that the parser
// knows, then bent ones. Every frame follows from the seed.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "tests/support/frame_builder.h"

namespace kestrel_model {

class frame_generator {
  public:
    explicit frame_generator(uint64_t seed) : random_(seed) {}

    // A whole frame: tags and labels, IP with options, extensions or fragments, transport, payload.
    std::vector<uint8_t> well_formed();
    // A well-formed frame with a few bytes changed, inserted or removed.
    std::vector<uint8_t> mutated();
    // Random bytes; often with a type field that leads the parser on.
    std::vector<uint8_t> random_bytes();

    uint32_t below(uint32_t limit);  // 0..limit-1
    bool one_in(uint32_t n) { return below(n) == 0; }

  private:
    // Written in front of the network header: decides how that one is announced.
    void link_layer(kestrel_test::frame_builder& out, unsigned network_type);
    void labels(kestrel_test::frame_builder& out, bool pseudowire);
    void random_run(kestrel_test::frame_builder& out, uint32_t length);
    void ip4(kestrel_test::frame_builder& out);
    void ip6(kestrel_test::frame_builder& out);
    void transport(kestrel_test::frame_builder& out, unsigned protocol);
    unsigned any_protocol();

    std::mt19937_64 random_;
};

}  // namespace kestrel_model
