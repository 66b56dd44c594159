// Nanoseconds per flow for the filter, by table and number of rules, and what it costs to load a
// rule file. Flows are drawn at random: each table is searched along other branches every time.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bench/frames.h"
#include "filter/filter_rules.h"
#include "kestrelexp/builtin.h"

namespace {

using kestrel::filter_owner;

// A rule file in memory.
class rule_file {
  public:
    explicit rule_file(const std::string& text) : file_(memfd_create("rules", MFD_CLOEXEC)) {
        if (file_ < 0 ||
            write(file_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            abort();
    }
    ~rule_file() { close(file_); }
    rule_file(const rule_file&) = delete;
    rule_file& operator=(const rule_file&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(file_); }

  private:
    int file_;
};

std::string rules_text(int64_t count, const std::function<std::string(uint32_t)>& rule) {
    std::string text;
    for (int64_t i = 0; i < count; ++i)
        text += rule(static_cast<uint32_t>(i)) + "\n";
    return text;
}

filter_owner load(const std::string& text) {
    const rule_file file(text);
    filter_owner rules = kestrel::filter_load(file.path().c_str());
    if (!rules)
        abort();
    return rules;
}

// Networks of 16 addresses, 16384 apart, from 0.0.0.0 on: 100,000 of them fill a third of IPv4.
constexpr uint32_t network_distance4 = 16384;

std::string dotted(uint32_t a) {
    return std::to_string(a >> 24) + "." + std::to_string(a >> 16 & 255) + "." +
           std::to_string(a >> 8 & 255) + "." + std::to_string(a & 255);
}

std::string fast4_rule(uint32_t i) {
    return "fast src addr " + dotted(i * network_distance4) + "/28";
}

// Every other /64 of one prefix.
std::string fast6_rule(uint32_t i) {
    char text[64];
    snprintf(text, sizeof text, "fast src addr 2001:db8:%x:%x::/64", i >> 15, i * 2 & 0xFFFF);
    return text;
}

// Rules of the kinds that have to be looked at to the end; none matches the flows below.
std::string slow_rule(uint32_t i) {
    switch (i % 4) {
        case 0:
            return "src addr " + dotted(0xC6000000 + i * 256) + "/24 dst port 443";
        case 1:
            return "addr " + dotted(0xC6000000 + i * 256) + "/24";
        case 2:
            return "port " + std::to_string(20000 + i) + " proto tcp";
        default:
            return "not dst addr " + dotted(0xC6000000 + i * 256) + " proto icmp";
    }
}

// Sources that the n-th rule of count holds, in random order. A power of two, so that stepping
// through costs nothing; long enough that no branch predictor learns it.
constexpr size_t flows = 1 << 16;

std::vector<uint32_t> random_rules(int64_t count) {
    std::vector<uint32_t> numbers(flows);
    for (size_t i = 0; i < flows; ++i)
        numbers[i] = static_cast<uint32_t>(bench::mix(i) % static_cast<uint64_t>(count));
    return numbers;
}

flow_record udp_flow(uint8_t version) {
    flow_record record{};
    record.l3protocol = version;
    record.l4protocol = 17;
    record.srcport = 1234;
    record.dstport = 53;
    record.packets = 3;
    record.bytes = 500;
    return record;
}

// offset: from the first address of a network; above 15 lies outside.
void fast4(benchmark::State& state, uint32_t offset) {
    const filter_owner rules = load(rules_text(state.range(0), fast4_rule));
    const std::vector<uint32_t> numbers = random_rules(state.range(0));
    flow_record record = udp_flow(4);
    record.ipv4.dstipv4 = 0xC0000201;
    size_t next = 0;
    for (auto _ : state) {
        record.ipv4.srcipv4 = numbers[next++ % flows] * network_distance4 + offset;
        benchmark::DoNotOptimize(filter_test(rules.get(), &record));
    }
    if (filter_test(rules.get(), &record) != (offset > 15))
        state.SkipWithError("wrong verdict");
}

void fast6(benchmark::State& state, bool inside) {
    const filter_owner rules = load(rules_text(state.range(0), fast6_rule));
    const std::vector<uint32_t> numbers = random_rules(state.range(0));
    flow_record record = udp_flow(6);
    uint32_t words[4] = {1, 0, 0, 0x20010DB8};
    size_t next = 0;
    for (auto _ : state) {
        words[2] = numbers[next++ % flows] * 2 + !inside;
        std::memcpy(record.ipv6.srcipv6, words, sizeof words);
        benchmark::DoNotOptimize(filter_test(rules.get(), &record));
    }
    if (filter_test(rules.get(), &record) != !inside)
        state.SkipWithError("wrong verdict");
}

void slow(benchmark::State& state) {
    const filter_owner rules = load(rules_text(state.range(0), slow_rule) + "any\n");
    flow_record record = udp_flow(4);
    record.ipv4.dstipv4 = 0xC0000201;
    for (auto _ : state) {
        record.ipv4.srcipv4 += network_distance4;
        record.ipv4.srcipv4 &= 0x7FFFFFFF;
        benchmark::DoNotOptimize(filter_test(rules.get(), &record));
    }
    if (filter_test(rules.get(), &record) != 0)
        state.SkipWithError("wrong verdict");
}

size_t heap_in_use() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// The time and the memory of one file; both have to grow with the number of rules and no faster.
void load_file(benchmark::State& state, std::string (*rule)(uint32_t)) {
    const rule_file file(rules_text(state.range(0), rule));
    const std::string path = file.path();
    size_t bytes = 0;
    for (auto _ : state) {
        const size_t before = heap_in_use();
        const filter_owner rules = kestrel::filter_load(path.c_str());
        bytes = heap_in_use() - before;
    }
    const auto count = static_cast<double>(state.range(0));
    state.counters["bytes_per_rule"] = static_cast<double>(bytes) / count;
    state.counters["ns_per_rule"] = benchmark::Counter(
        count * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK_CAPTURE(fast4, hit, 7)->Name("filter_match_fast4_hit")->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK_CAPTURE(fast4, miss, 9000)
    ->Name("filter_match_fast4_miss")
    ->Arg(10)
    ->Arg(1000)
    ->Arg(100000);
BENCHMARK_CAPTURE(fast6, hit, true)
    ->Name("filter_match_fast6_hit")
    ->Arg(10)
    ->Arg(1000)
    ->Arg(100000);
BENCHMARK_CAPTURE(fast6, miss, false)
    ->Name("filter_match_fast6_miss")
    ->Arg(10)
    ->Arg(1000)
    ->Arg(100000);
BENCHMARK(slow)->Name("filter_match_slow")->Arg(10)->Arg(1000);
BENCHMARK_CAPTURE(load_file, fast4, fast4_rule)
    ->Name("filter_load_fast4")
    ->Unit(benchmark::kMillisecond)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000);
BENCHMARK_CAPTURE(load_file, fast6, fast6_rule)
    ->Name("filter_load_fast6")
    ->Unit(benchmark::kMillisecond)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000);
BENCHMARK_CAPTURE(load_file, slow, slow_rule)
    ->Name("filter_load_slow")
    ->Unit(benchmark::kMillisecond)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000);

}  // namespace
