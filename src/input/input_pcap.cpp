// The "pcap" input: frames from one network device through libpcap, one by one, with deterministic
// 1-in-N sampling. Frames of devices that are not Ethernet are given an Ethernet header. Runs on
// the reader thread after start-up; never parses a frame.

#include <pcap/pcap.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "base/clock.h"
#include "base/log.h"
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
constexpr int promiscuous = 1;
constexpr int timeout_ms = 10;
constexpr useconds_t pause_after_error_us = 10'000;

struct pcap_input {
    pcap_t* handle;
    char* device;
    const link_format* format;  // null: Ethernet frames, handed on where libpcap has them
    uint8_t* ethernet_frame;    // room for one that was translated; null for Ethernet
    uint32_t ethernet_room;     // bytes
    uint32_t sampling;          // deliver every N-th frame, 0 = all
    uint32_t sampling_counter;  // frames up to the next one delivered, from 1
    uint64_t delivered;         // frames that libpcap has handed over, sampled out or not
    pcap_stat seen;             // what libpcap told last; its numbers are 32 bits wide
    input_counts counts;        // ring and card drops by the last look; sampled out
    uint64_t received;          // frames that the kernel has put into the ring or dropped
    bool failing;               // the last attempt to read met an error, which has been reported
};

void read_parameters(char* params, pcap_input& input) {
    int32_t sampling = 0;
    const config_setting settings[] = {
        {"device", static_cast<void*>(&input.device), CONFIG_STRING},
        {"sampling", &sampling, CONFIG_INTEGER},
        {nullptr, nullptr, 0},
    };
    if (config_set_values(params, settings) != 0)
        die(exit_config, "Parameters decoding problem");
    if (!input.device)
        die(exit_config, "Device parameter is mandatory for pcap input.");
    input.sampling = sampling_rate(sampling);
}

// Says whether frames of the device can be handed on, and gets ready to translate them.
bool set_link_type(pcap_input& input) {
    const int link_type = pcap_datalink(input.handle);
    if (link_type == DLT_EN10MB)
        return true;
    input.format = link_format_find(link_type);
    if (!input.format) {
        const char* name = pcap_datalink_val_to_name(link_type);
        verbose_msg(-1,
                    "Device %s does not deliver Ethernet frames but %s, which cannot be "
                    "translated. Use an Ethernet, tunnel or PPP device, or \"any\"",
                    input.device, name ? name : "an unknown link type");
        return false;
    }
    input.ethernet_room = LINK_ETHERNET_HEADER + static_cast<uint32_t>(pcap_snapshot(input.handle));
    input.ethernet_frame = static_cast<uint8_t*>(malloc_wrapper(input.ethernet_room, 1));
    return true;
}

// libpcap's own words about a device that cannot be opened are not shown; the switch reports that
// the plugin failed.
bool open_device(pcap_input& input, int snap_length) {
    char error[PCAP_ERRBUF_SIZE] = "";
    input.handle = pcap_open_live(input.device, snap_length, promiscuous, timeout_ms, error);
    if (!input.handle)
        return false;
    if (set_link_type(input))
        return true;
    pcap_close(input.handle);
    return false;
}

// pcap_next tells neither a time-out from an error nor one error from the next. An error (the
// device went down or away) is reported once, and the reader does not spin on it.
void note_error(pcap_input& input) {
    char* error = pcap_geterr(input.handle);
    if (*error == '\0')
        return;
    if (!input.failing)
        verbose_msg(-1, "Device %s: %s", input.device, error);
    input.failing = true;
    *error = '\0';
    usleep(pause_after_error_us);
}

bool is_sampled(pcap_input& input) {
    if (input.sampling == 0)
        return true;
    if (input.sampling_counter++ != input.sampling)
        return false;
    input.sampling_counter = 1;
    return true;
}

// How far a 32-bit counter has come, which may have wrapped once.
uint64_t advance(u_int& seen, u_int now) {
    return static_cast<uint32_t>(now - std::exchange(seen, now));
}

// Takes libpcap's numbers into ours. Its count of received frames has those that were dropped, and
// it is libpcap that adds up what the kernel resets with each look.
void count_drops(pcap_input& input) {
    pcap_stat now{};
    if (pcap_stats(input.handle, &now) != 0)
        return;
    input.received += advance(input.seen.ps_recv, now.ps_recv);
    input.counts.ring_dropped_packets += advance(input.seen.ps_drop, now.ps_drop);
    input.counts.card_dropped_packets += advance(input.seen.ps_ifdrop, now.ps_ifdrop);
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const plugin_description* input_pcap_desc(void) {
    return &description;
}

void* input_pcap_init(char* params, int needs_packets, uint16_t) {
    auto* input = static_cast<pcap_input*>(malloc_wrapper(sizeof(pcap_input), 1));
    read_parameters(params, *input);
    if (!open_device(*input, needs_packets ? snap_length_packets : snap_length_headers)) {
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
    const uint8_t* frame = pcap_next(input.handle, &captured);
    if (!frame) [[unlikely]] {
        note_error(input);
        return nullptr;
    }
    input.failing = false;
    input.delivered += 1;
    if (!is_sampled(input)) {
        input.counts.sampled_out_packets += 1;
        input.counts.sampled_out_bytes += captured.len;
        return nullptr;
    }
    header->timestamp = static_cast<uint64_t>(captured.ts.tv_sec) * ns_per_second +
                        static_cast<uint64_t>(captured.ts.tv_usec) * ns_per_us;
    header->captured_length = captured.caplen;
    header->wire_length = captured.len;
    header->input_interface = 0;
    header->output_interface = 0;
    if (input.format) [[unlikely]]
        return link_to_ethernet(input.format, frame, header, input.ethernet_frame,
                                input.ethernet_room);
    return frame;
}

void input_pcap_counters(void* instance, uint32_t, input_counts* counts) {
    auto& input = *static_cast<pcap_input*>(instance);
    count_drops(input);
    *counts = input.counts;
    counts->is_up = 1;
}
