// Nanoseconds per record for the exporters, up to and including the kernel's delivery of each
// datagram to a local socket that nobody reads: one for 30 records (NetFlow v5) or about 25.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "bench/workload.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"
#include "tests/support/source_tree.h"

namespace {

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
                  export_export_function* export_record, const std::string& more) {
    std::string params = "host=127.0.0.1,ip=4,port=" + std::to_string(open_sink()) + more;
    void* instance = init(params.data(), getter_base_init());
    bench::mixed_flows flows;
    for (auto _ : state)
        benchmark::DoNotOptimize(export_record(instance, &flows.next()));
}

void export_nf5(benchmark::State& state) {
    run_exporter(state, exporter_nf5_init, exporter_nf5_export, "");
}
BENCHMARK(export_nf5);

void export_nf9(benchmark::State& state) {
    run_exporter(state, exporter_nf9_init, exporter_nf9_export,
                 ",template-file=" + kestrel_test::in_source_tree("etc/nf9-template.txt"));
}
BENCHMARK(export_nf9);

void export_ipfix(benchmark::State& state) {
    run_exporter(state, exporter_ipfix_init, exporter_ipfix_export,
                 ",template_file=" + kestrel_test::in_source_tree("etc/ipfix-template.txt"));
}
BENCHMARK(export_ipfix);

// What the record loop has to do with it: the kernel's part is the worker's.
void export_ipfix_background(benchmark::State& state) {
    run_exporter(state, exporter_ipfix_init, exporter_ipfix_export,
                 ",reconnect=background,template_file=" +
                     kestrel_test::in_source_tree("etc/ipfix-template.txt"));
}
BENCHMARK(export_ipfix_background);

}  // namespace
