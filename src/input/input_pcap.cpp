// The "pcap" input: frames from one network device through libpcap, one by one, with deterministic
// 1-in-N sampling. Frames of devices that are not Ethernet are given an Ethernet header. Runs on
// the reader thread after start-up; never parses a frame, and leaves what becomes of the device to
// pcap_device.

#include <cstdlib>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"
#include "input/interface_alias.h"
#include "input/pcap_device.h"
#include "input/sampling.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/link.h"

namespace kestrel {
namespace {

constexpr plugin_description description{
    "pcap",
    "Pcap packet input driver, get packet from pcap and pass it directly to exporter.\n"
    "This driver may be used with process plugins.\n"
    "Parameters (delimited by ',':\n"
    " device=devname (mandatory)\n"
    " sampling=value",
    0, 0};

constexpr int snap_length_headers = 96;     // enough for every header that the parser reads
constexpr int snap_length_packets = 10000;  // when process plugins look at whole frames

struct pcap_input {
    pcap_device device;
    char* device_name;
    uint32_t sampling;           // deliver every N-th frame, 0 = all
    uint32_t sampling_counter;   // frames up to the next one delivered, from 1
    uint64_t sampled_out;        // frames
    uint64_t sampled_out_bytes;  // on the wire
    interface_alias alias;
    uint64_t next_alias_ns;  // uptime of the next look at it
};

constexpr uint64_t alias_period_ns = ns_per_second;

void read_parameters(char* params, pcap_input& input) {
    int32_t sampling = 0;
    const config_setting settings[] = {
        {"device", static_cast<void*>(&input.device_name), CONFIG_STRING},
        {"sampling", &sampling, CONFIG_INTEGER},
        {nullptr, nullptr, 0},
    };
    if (config_set_values(params, settings) != 0)
        die(exit_config, "Parameters decoding problem");
    if (!input.device_name)
        die(exit_config, "Device parameter is mandatory for pcap input.");
    input.sampling = sampling_rate(sampling);
}

bool is_sampled(pcap_input& input) {
    if (input.sampling == 0)
        return true;
    if (input.sampling_counter++ != input.sampling)
        return false;
    input.sampling_counter = 1;
    return true;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const plugin_description* input_pcap_desc(void) {
    return &description;
}

void* input_pcap_init(char* params, int needs_packets, uint16_t) {
    auto* input = make_lifelong<pcap_input>();
    read_parameters(params, *input);
    if (!pcap_device_open(input->device, input->device_name,
                          needs_packets ? snap_length_packets : snap_length_headers)) {
        free(input);
        return nullptr;
    }
    input->sampling_counter = 1;
    return input;
}

uint32_t input_pcap_sampling(void* instance) {
    return static_cast<pcap_input*>(instance)->sampling;
}

const uint8_t* input_pcap_packet(void* instance, packet_header* header) {
    auto& input = *static_cast<pcap_input*>(instance);
    pcap_pkthdr captured;
    const uint8_t* frame = pcap_device_next(input.device, captured);
    if (!frame) [[unlikely]]
        return nullptr;
    if (!is_sampled(input)) {
        input.sampled_out += 1;
        input.sampled_out_bytes += captured.len;
        return nullptr;
    }
    header->timestamp = static_cast<uint64_t>(captured.ts.tv_sec) * ns_per_second +
                        static_cast<uint64_t>(captured.ts.tv_usec) * ns_per_us;
    header->captured_length = captured.caplen;
    header->wire_length = captured.len;
    header->input_interface = 0;
    header->output_interface = 0;
    const pcap_device& device = input.device;
    if (device.format) [[unlikely]]
        return link_to_ethernet(device.format, frame, header, device.ethernet_frame,
                                device.ethernet_room);
    return frame;
}

void input_pcap_counters(void* instance, uint32_t, input_counts* counts) {
    auto& input = *static_cast<pcap_input*>(instance);
    pcap_device_count(input.device, *counts);
    counts->sampled_out_packets = input.sampled_out;
    counts->sampled_out_bytes = input.sampled_out_bytes;
}

void input_pcap_interfaces(void* instance, input_interface_told_function* tell, void* context) {
    auto& input = *static_cast<pcap_input*>(instance);
    if (const uint64_t now_ns = system_uptime_ns(); now_ns >= input.next_alias_ns) {
        input.next_alias_ns = now_ns + alias_period_ns;
        input.alias = look_up_alias(input.device_name);
    }
    const input_interface told = {0, input.device_name,
                                  input.alias.text};  // as its headers have it
    tell(context, &told);
}
