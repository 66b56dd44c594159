// Nanoseconds per record for the NetFlow v5 exporter, up to and including the kernel's delivery of
// every 30th record's datagram to a local socket that nobody reads.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "bench/workload.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"

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

void export_nf5(benchmark::State& state) {
    static void* instance = [] {
        static std::string params = "host=127.0.0.1,ip=4,port=" + std::to_string(open_sink());
        return exporter_nf5_init(params.data(), getter_base_init());
    }();
    flow_record record = bench::packet_record();
    record.start = record.end = timer_get_nsec();  // a flow that ends in the future travels alone
    for (auto _ : state)
        benchmark::DoNotOptimize(exporter_nf5_export(instance, &record));
}
BENCHMARK(export_nf5);

}  // namespace
