// Template files: any content. Faults of a file end the program, so each input runs in a copy of
// the process; what counts is that it ends with a status that the program knows, and that what an
// exporter sends is framed. Input: one byte that chooses the exporter, then the file.
#include <arpa/inet.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/log.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/record.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/fuzz/run_in_copy.h"

namespace {

struct exporter {
    export_init_function* init;
    export_export_function* export_record;
    export_flush_function* flush;
    const char* file_key;
    size_t header_length;
};
constexpr exporter exporters[] = {
    {exporter_ipfix_init, exporter_ipfix_export, exporter_ipfix_flush, "template_file", 16},
    {exporter_nf9_init, exporter_nf9_export, exporter_nf9_flush, "template-file", 20}};

constexpr int misframed = 99;
constexpr int faulty_file = 255;

// A socket on a loopback port.
int collector(uint16_t* port) {
    const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    if (bind(receiver, any, size) != 0 || getsockname(receiver, any, &size) != 0)
        kestrel_fuzz::fail("no collector");
    *port = ntohs(address.sin_port);
    return receiver;
}

// Sets follow the header without a gap and end with the packet, which is never too long.
bool is_framed(const uint8_t* packet, size_t size, size_t header_length) {
    if (size < header_length || size > header_length + 1450)
        return false;
    for (size_t at = header_length; at < size;) {
        if (size - at < 4)
            return false;
        const size_t length = size_t{packet[at + 2]} * 256 + packet[at + 3];
        if (length < 4 || length > size - at)
            return false;
        at += length;
    }
    return true;
}

flow_record* next_flow(int number) {
    static union {
        flow_record record;
        uint8_t bytes[256];
    } flow;
    constexpr uint8_t protocols[] = {6, 17, 1, 58, 47, 132};
    std::memset(flow.bytes, number, sizeof flow.bytes);
    flow.record.l3protocol = number % 3 == 0 ? 6 : 4;
    flow.record.l4protocol = protocols[number % 6];
    flow.record.end = 0;
    flow.record.sampling = static_cast<uint16_t>(number / 100);
    return &flow.record;
}

void run(const exporter& from, const std::string& path) {
    uint16_t port;
    const int receiver = collector(&port);
    std::string params = "host=127.0.0.1,port=" + std::to_string(port) + "," + from.file_key + "=" +
                         path + ",template-refresh-packets=2,template-refresh-time=-1";
    void* instance = from.init(params.data(), getter_base_init());
    const auto drain = [&] {
        uint8_t packet[4096];
        ssize_t size;
        while ((size = recv(receiver, packet, sizeof packet, MSG_DONTWAIT)) > 0)
            if (!is_framed(packet, static_cast<size_t>(size), from.header_length))
                std::exit(misframed);
    };
    for (int number = 0; number < 400; ++number) {
        from.export_record(instance, next_flow(number));
        drain();
    }
    from.flush(instance);
    drain();
}

void prepare() {
    verbose_level = -2;
    kestrel_vlan_offset = 88;
    kestrel_mpls_offset = 98;
    kestrel_mac_offset = 142;
    if (freopen("/dev/null", "w", stdout) == nullptr)
        kestrel_fuzz::fail("no standard output");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const int file = memfd_create("templates", 0);
    if (file < 0 || write(file, data + 1, size - 1) != static_cast<ssize_t>(size - 1))
        kestrel_fuzz::fail("no file");
    const int status = kestrel_fuzz::run_in_copy([&] {
        prepare();
        run(exporters[data[0] % 2], "/proc/self/fd/" + std::to_string(file));
    });
    close(file);
    if (status == misframed)
        kestrel_fuzz::fail("a packet is not framed");
    if (status != 0 && status != faulty_file)
        kestrel_fuzz::fail("another status");
    return 0;
}
