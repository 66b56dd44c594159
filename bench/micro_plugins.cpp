// Nanoseconds per flow for the anonymizer and the AS helper, and what its table costs to load. The
// table is as large as those of routers: 1,000,000 IPv4 and 200,000 IPv6 networks.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/workload.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/service.h"

namespace {

using bench::mix;

constexpr uint32_t networks4 = 1'000'000;
constexpr uint32_t networks6 = 200'000;
constexpr size_t flow_count = 65'536;  // as many as stay apart from each other in the caches

// ---- The anonymizer

void anonymizer(benchmark::State& state, const char* text, uint8_t version) {
    std::string params = text;
    void* const instance = anonymizer_init(params.data(), nullptr);
    flow_record flow = bench::packet_record();
    flow.l3protocol = version;
    for (auto _ : state)
        benchmark::DoNotOptimize(anonymizer_process(instance, &flow));
}
BENCHMARK_CAPTURE(anonymizer, mask_ipv4, "MASK:10.0.0.0/8,11.0.0.0/8", 4);
BENCHMARK_CAPTURE(anonymizer, aes_ipv4, "AES:ADDR:0123456789abcdef", 4);
BENCHMARK_CAPTURE(anonymizer, aes_ipv6, "AES:ADDR:0123456789abcdef", 6);
BENCHMARK_CAPTURE(anonymizer, aes_ports, "AES:PORT:0123456789abcdef", 4);
BENCHMARK_CAPTURE(anonymizer, aes_ipv4_and_ports, "AES:ADDR,PORT:0123456789abcdef", 4);
BENCHMARK_CAPTURE(anonymizer, aes_ipv6_and_ports, "AES:ADDR,PORT:0123456789abcdef", 6);

// ---- The AS helper

// Network n: the first 20 to 24 bits of a block of 4,096 addresses.
uint32_t network4(uint32_t n) {
    return n * 4096;
}

void words_of_network6(uint32_t n, uint32_t (&words)[4]) {
    words[3] = 0x2001'0000 | static_cast<uint32_t>(mix(n) & 0xFFFF);
    words[2] = static_cast<uint32_t>(mix(n) >> 32);
    words[1] = n;
    words[0] = 1;
}

void write_table(FILE* file) {
    for (uint32_t n = 0; n < networks4; ++n) {
        const uint32_t a = network4(n);
        std::fprintf(file, "%u-%u.%u.%u.%u/%u\n", n % 70'000 + 1, a >> 24, a >> 16 & 255,
                     a >> 8 & 255, a & 255, 20 + n % 5);
    }
    for (uint32_t n = 0; n < networks6; ++n) {
        uint32_t w[4];
        words_of_network6(n, w);
        std::fprintf(file, "%u-%x:%x:%x:%x:%x:%x:%x:%x/128\n", n % 70'000 + 1, w[3] >> 16,
                     w[3] & 0xFFFF, w[2] >> 16, w[2] & 0xFFFF, w[1] >> 16, w[1] & 0xFFFF,
                     w[0] >> 16, w[0] & 0xFFFF);
    }
}

// The file's path. It goes with the process.
const char* table_path() {
    static char path[] = "/tmp/kestrel-bench-as-XXXXXX";
    static const bool is_written = [] {
        FILE* const file = fdopen(mkstemp(path), "w");
        write_table(file);
        (void)std::fclose(file);
        return std::atexit([] { (void)unlink(path); }) == 0;
    }();
    return is_written ? path : nullptr;
}

as_helper_state* loaded_table() {
    static as_helper_state* const table = __as_helper_init(table_path(), nullptr);
    return table;
}

// Flows between random networks of the table. They end at the dawn of time: no check is due.
std::vector<flow_record> flows_of(uint8_t version) {
    std::vector<flow_record> flows(flow_count, bench::packet_record());
    for (size_t i = 0; i < flow_count; ++i) {
        flow_record& flow = flows[i];
        flow.end = 0;
        flow.l3protocol = version;
        const auto source = static_cast<uint32_t>(mix(2 * i));
        const auto destination = static_cast<uint32_t>(mix(2 * i + 1));
        if (version == 4) {
            flow.ipv4.srcipv4 = network4(source % networks4) + source % 256;
            flow.ipv4.dstipv4 = network4(destination % networks4) + destination % 256;
            continue;
        }
        uint32_t words[4];
        words_of_network6(source % networks6, words);
        std::memcpy(flow.ipv6.srcipv6, words, sizeof words);
        words_of_network6(destination % networks6, words);
        std::memcpy(flow.ipv6.dstipv6, words, sizeof words);
    }
    return flows;
}

void as_helper(benchmark::State& state, uint8_t version) {
    as_helper_state* const table = loaded_table();
    std::vector<flow_record> flows = flows_of(version);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(as_helper_lookup(table, &flows[i++ % flow_count]));
}
BENCHMARK_CAPTURE(as_helper, ipv4, 4);
BENCHMARK_CAPTURE(as_helper, ipv6, 6);
BENCHMARK_CAPTURE(as_helper, neither, 0);

// Every flow ends a millisecond after the last one, so each has the file checked; also after the
// runs with fewer iterations that came before.
void as_helper_file_check(benchmark::State& state) {
    as_helper_state* const table = loaded_table();
    static flow_record flow = bench::packet_record();
    flow.l3protocol = 0;
    for (auto _ : state) {
        flow.end += 1'000'000;
        benchmark::DoNotOptimize(as_helper_lookup(table, &flow));
    }
}
BENCHMARK(as_helper_file_check);

void as_helper_load(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(__as_helper_init(table_path(), nullptr));
}
BENCHMARK(as_helper_load)->Unit(benchmark::kMillisecond)->Iterations(3);

void as_helper_reload(benchmark::State& state) {
    as_helper_state* const table = loaded_table();
    for (auto _ : state)
        benchmark::DoNotOptimize(__as_helper_init(table_path(), table));
}
BENCHMARK(as_helper_reload)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
