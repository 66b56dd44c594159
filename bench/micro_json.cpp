// What a line of JSON costs the record loop: records of three kinds and many lengths, by style, and
// the Community ID alone, which is part of that of ECS.

#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "extras/flow-encoding/community_id.h"
#include "extras/flow-encoding/flow_encoding.h"
#include "kestrelexp/getter.h"

namespace {

constexpr uint64_t now_ns = 1'700'000'000'123'456'789;

// Of many lengths in no order, as those of a line are.
std::vector<flow_record> records() {
    constexpr size_t count = 3000;
    std::mt19937 generator(1);
    const auto draw = [&] { return static_cast<uint32_t>(generator()); };
    const auto below = [&](uint32_t limit) { return draw() % limit; };
    std::vector<flow_record> made(count);
    for (size_t n = 0; n < count; ++n) {
        flow_record& one = made[n];
        one.end = now_ns - draw();
        one.start = one.end - draw();
        one.packets = 1 + below(1U << below(16));
        one.bytes = one.packets * (40 + below(1460));
        one.l4protocol = n % 3 == 1 ? 17 : 6;
        one.tcpflags = n % 3 == 1 ? 0 : static_cast<uint8_t>(below(32));
        one.srcport = static_cast<uint16_t>(draw());
        one.dstport = below(2) == 0 ? 443 : static_cast<uint16_t>(below(9000));
        if (n % 3 != 2) {
            one.l3protocol = 4;
            one.ipv4 = {draw(), draw(), 0};
            continue;
        }
        one.l3protocol = 6;
        for (size_t byte = 0; byte < 16; ++byte) {
            const bool is_zero = byte >= 6 && byte < 12;
            one.ipv6.srcipv6[byte] = static_cast<uint8_t>(is_zero ? 0 : draw());
            one.ipv6.dstipv6[byte] = static_cast<uint8_t>(draw());
        }
    }
    return made;
}

void json_encode(benchmark::State& state, field_style style, const char* fields) {
    std::string fault;
    flow_encoding::json_encoder* const encoder = flow_encoding::json_encoder::open(
        {style, fields, {}, "192.0.2.9"}, getter_base_init(), fault);
    std::string line(encoder->longest(), '\0');
    const std::vector<flow_record> flows = records();
    size_t bytes = 0, n = 0;
    for (auto _ : state) {
        bytes += encoder->encode(flows[n], now_ns + n, line.data());
        n = n + 1 < flows.size() ? n + 1 : 0;
        benchmark::DoNotOptimize(line.data());
    }
    state.counters["bytes"] =
        benchmark::Counter(static_cast<double>(bytes) / static_cast<double>(state.iterations()));
}
BENCHMARK_CAPTURE(json_encode, goflow2, FIELD_STYLE_GOFLOW2, "");
BENCHMARK_CAPTURE(json_encode, ecs, FIELD_STYLE_ECS, "");
BENCHMARK_CAPTURE(json_encode, five_fields, FIELD_STYLE_GOFLOW2,
                  "L3_IPV4_ADDR_SRC#L3_IPV4_ADDR_DST#L4_PORT_SRC#L4_PORT_DST#BYTES");

void json_community_id(benchmark::State& state) {
    char text[flow_encoding::community_id_length];
    const std::vector<flow_record> flows = records();
    size_t n = 0;
    for (auto _ : state) {
        flow_encoding::put_community_id(text, flows[n], 0);
        n = n + 1 < flows.size() ? n + 1 : 0;
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(json_community_id);

}  // namespace
