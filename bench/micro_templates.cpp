// Nanoseconds per record for what a template exporter does: finding the template, filling its
// fields. The templates are the shipped ones; whole exporters are in micro_export.cpp.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <iterator>

#include "bench/workload.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/service.h"
#include "kestrelexp/template.h"
#include "tests/support/source_tree.h"

namespace {

template_collection* shipped_templates() {
    static template_collection* made = [] {
        char** lines = read_config(kestrel_test::in_source_tree("etc/ipfix-template.txt").c_str());
        if (!lines)
            abort();
        return exporter_template_init(exporter_template_convert_config(lines), static_field_ipfix,
                                      getter_base_init());
    }();
    return made;
}

// The plain walks that exporter_template_find stands for.
void template_find_plain(benchmark::State& state) {
    const template_collection* from = shipped_templates();
    bench::mixed_flows flows;
    for (auto _ : state) {
        const uint64_t valid = getter_bitmap_from_record(from->getters, &flows.next());
        int32_t index = 0;
        while (index < from->count && (from->templates[index].required & ~valid) != 0)
            ++index;
        benchmark::DoNotOptimize(index);
    }
}
BENCHMARK(template_find_plain);

void template_find(benchmark::State& state) {
    const template_collection* from = shipped_templates();
    bench::mixed_flows flows;
    for (auto _ : state) {
        int32_t index;
        benchmark::DoNotOptimize(exporter_template_find(from, &flows.next(), &index));
        benchmark::DoNotOptimize(index);
    }
}
BENCHMARK(template_find);

// One record of 16 fields (IPv4, TCP), and the copy of the buffer once per 20.
void template_fill(benchmark::State& state) {
    template_collection* to = shipped_templates();
    bench::mixed_flows flows;
    flow_record& flow = flows.flows[0];
    int32_t index;
    exporter_template_find(to, &flow, &index);
    uint8_t packet[4096];
    int buffered = 0;
    for (auto _ : state) {
        exporter_template_add_record(to, &flow, index);
        if (++buffered == 20) {
            template_cursor cursor = {packet, 0, 0};
            exporter_template_fill_packet_data(to, &cursor);
            buffered = 0;
        }
    }
    template_cursor cursor = {packet, 0, 0};
    exporter_template_fill_packet_data(to, &cursor);
}
BENCHMARK(template_fill);

void template_data_size(benchmark::State& state) {
    const template_collection* from = shipped_templates();
    for (auto _ : state)
        benchmark::DoNotOptimize(exporter_template_current_data_size(from));
}
BENCHMARK(template_data_size);

}  // namespace
