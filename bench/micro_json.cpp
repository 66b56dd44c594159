// What a line of JSON costs the record loop: records of three kinds in turn, by style, and the
// Community ID alone, which is part of that of ECS.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "extras/flow-encoding/community_id.h"
#include "extras/flow-encoding/flow_encoding.h"
#include "kestrelexp/getter.h"

namespace {

constexpr uint64_t now_ns = 1'700'000'000'123'456'789;

std::vector<flow_record> records() {
    flow_record tcp{};
    tcp.start = now_ns - 3'000'000'000;
    tcp.end = now_ns - 1'000'000'000;
    tcp.packets = 12;
    tcp.bytes = 34'567;
    tcp.l3protocol = 4;
    tcp.ipv4 = {0xC0000201, 0xC6336407, 0};
    tcp.l4protocol = 6;
    tcp.srcport = 40'000;
    tcp.dstport = 443;
    tcp.tcpflags = 0x1B;
    flow_record udp = tcp;
    udp.l4protocol = 17;
    udp.dstport = 53;
    flow_record ipv6 = tcp;
    ipv6.l3protocol = 6;
    for (uint8_t n = 0; n < 16; ++n) {
        ipv6.ipv6.srcipv6[n] = static_cast<uint8_t>(n * 7 + 1);
        ipv6.ipv6.dstipv6[n] = static_cast<uint8_t>(n < 4 ? n + 9 : n == 15 ? 0x20 : 0);
    }
    return {tcp, udp, ipv6};
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
