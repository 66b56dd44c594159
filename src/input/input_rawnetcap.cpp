// The "rawnetcap" input: Ethernet frames of one or several devices out of the ring of the rawnetcap
// capture module, where they lie. Runs on the reader thread after start-up; never parses a frame
// and never talks to the device itself.

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "base/log.h"
#include "input/rawnetcap.h"
#include "input/sampling.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/rawnetcap.h"

namespace kestrel {
namespace {

constexpr plugin_description description{
    "rawnetcap",
    "Rawnetcap packet input driver, get packet from rawnetcap and pass it directly to exporter.\n"
    "This driver may be used with process plugins.\n"
    "Parameters (delimited by ',':\n"
    " device=devname (mandatory)\n"
    " sampling=value (samples per second)\n"
    " cache-size=value (in KiB, default is set by rawnetcap module)",
    0, 0};

constexpr uint32_t snap_length_headers = 128;    // enough for every header that the parser reads
constexpr uint32_t snap_length_packets = 10000;  // when process plugins look at whole frames
constexpr int timeout_ms = 10;

struct rawnetcap_input {
    rawnetcap_context* capture;
    char* device;  // names parted by ','
    uint32_t sampling;
    uint32_t cache_size;  // KiB, 0 = as the module likes
};

void read_parameters(char* params, rawnetcap_input& input) {
    int32_t sampling = 0;
    int32_t cache_size = 0;
    const config_setting settings[] = {
        {"device", static_cast<void*>(&input.device), CONFIG_STRING},
        {"sampling", &sampling, CONFIG_INTEGER},
        {"cache-size", &cache_size, CONFIG_INTEGER},
        {nullptr, nullptr, 0},
    };
    if (config_set_values(params, settings) != 0)
        die(exit_config, "Parameters decoding problem");
    if (!input.device)
        die(exit_config, "Device parameter is mandatory for rawnetcap input.");
    input.sampling = sampling_rate(sampling);
    input.cache_size = static_cast<uint32_t>(cache_size);
    // ',' parts parameters, so the command line parts devices by '#'.
    std::replace(input.device, input.device + std::strlen(input.device), '#', ',');
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const plugin_description* input_rawnetcap_desc(void) {
    return &description;
}

void* input_rawnetcap_init(char* params, int needs_packets, uint16_t) {
    auto* input = static_cast<rawnetcap_input*>(std::calloc(1, sizeof(rawnetcap_input)));
    if (!input)
        die(exit_config, "Unable to malloc");
    read_parameters(params, *input);
    input->capture = rawnetcap_init(input->device, input->sampling,
                                    needs_packets ? snap_length_packets : snap_length_headers,
                                    input->cache_size);
    if (!input->capture) {
        std::free(input);
        return nullptr;
    }
    return input;
}

uint32_t input_rawnetcap_sampling(void* instance) {
    return static_cast<rawnetcap_input*>(instance)->sampling;
}

const uint8_t* input_rawnetcap_packet(void* instance, packet_header* header) {
    const rawnetcap_record* record =
        rawnetcap_get_next(static_cast<rawnetcap_input*>(instance)->capture, timeout_ms);
    if (!record)
        return nullptr;
    header->timestamp =
        uint64_t{record->seconds} * ns_per_second + record->nanoseconds % ns_per_second;
    header->captured_length = record->captured_length;
    header->wire_length = record->wire_length;
    header->input_interface = record->input_interface;
    header->output_interface = 0;
    return reinterpret_cast<const uint8_t*>(record + 1);
}

// The module keeps to itself how many frames it loses.
void input_rawnetcap_counters(void* instance, uint32_t, input_counts* counts) {
    counts->is_up = static_cast<const rawnetcap_input*>(instance)->capture->can_read ? 1 : 0;
}
