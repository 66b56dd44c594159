// Nanoseconds per record for what a template exporter does: finding the template, filling its
// fields, and a whole exporter up to and including the kernel's delivery of each packet to a local
// socket that nobody reads. The templates are the shipped ones.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/service.h"
#include "kestrelexp/template.h"

namespace {

// Four kinds of flows, as many as there are templates for IPv4.
struct mixed_flows {
    mixed_flows() {
        constexpr uint8_t protocols[] = {6, 17, 6, 1};
        for (size_t i = 0; i < std::size(flows); ++i) {
            flow_record& flow = flows[i];
            flow = {};
            flow.start = flow.end = timer_get_nsec();  // one that ends in the future travels alone
            flow.packets = 7;
            flow.bytes = 4711;
            flow.l3protocol = 4;
            flow.l4protocol = protocols[i];
        }
    }
    flow_record& next() { return flows[++count % std::size(flows)]; }
    flow_record flows[4];
    size_t count = 0;
};

template_collection* shipped_templates() {
    static template_collection* made = [] {
        char** lines = read_config(KESTREL_SOURCE_DIR "/etc/ipfix-template.txt");
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
    mixed_flows flows;
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
    mixed_flows flows;
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
    mixed_flows flows;
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

// A UDP socket on the loopback interface; returns its port. It stays for the whole run.
uint16_t open_sink() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (fd < 0 || bind(fd, generic, length) != 0 || getsockname(fd, generic, &length) != 0)
        abort();
    return ntohs(address.sin_port);
}

void run_exporter(benchmark::State& state, export_init_function* init,
                  export_export_function* export_record, const char* file) {
    std::string params = "host=127.0.0.1,ip=4,port=" + std::to_string(open_sink()) + "," + file;
    void* instance = init(params.data(), getter_base_init());
    mixed_flows flows;
    for (auto _ : state)
        benchmark::DoNotOptimize(export_record(instance, &flows.next()));
}

void export_ipfix(benchmark::State& state) {
    run_exporter(state, exporter_ipfix_init, exporter_ipfix_export,
                 "template_file=" KESTREL_SOURCE_DIR "/etc/ipfix-template.txt");
}
BENCHMARK(export_ipfix);

void export_nf9(benchmark::State& state) {
    run_exporter(state, exporter_nf9_init, exporter_nf9_export,
                 "template-file=" KESTREL_SOURCE_DIR "/etc/nf9-template.txt");
}
BENCHMARK(export_nf9);

}  // namespace
