// The "af-packet" input: frames from the kernel's own rings, in lanes, without a library in their
// way. Initialised on the main thread; then each queue is a lane with a thread of its own. Never
// parses a frame.

#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <sys/sysinfo.h>

#include <memory>
#include <vector>

#include "device.h"
#include "lane.h"
#include "settings.h"

namespace af_packet {
namespace {

constexpr plugin_description description{
    "af-packet",
    "Input driver for the capture rings of the kernel, without a library in between.\n"
    "This driver may be used with process plugins.\n"
    "Parameters (delimited by ','):\n"
    " device=devname (mandatory, several are separated by '#')\n"
    " lanes=count (1)\n"
    " fanout=group (share the frames with other processes)\n"
    " ring=MiB (16, for each lane and device)\n"
    " sampling=value (by the kernel, at random)\n"
    " promiscuous=0|1 (1)\n"
    " snap=bytes (136; whole frames when process plugins need them)\n"
    " filter=expression (pcap-filter(7); the last one: all that follows belongs to it)",
    0, PLUGIN_WHOLE_PARAMS};  // expressions hold ':'

struct input {
    capture_plan plan{};
    device_list devices;
    std::vector<std::unique_ptr<lane>> lanes;
};

// Asked for more than there is, the kernel would end other processes to find it.
bool fits_into_memory(const capture_plan& plan) {
    struct sysinfo machine {};
    const uint64_t all = plan.all_ring_bytes();
    if (sysinfo(&machine) != 0 || all <= uint64_t{machine.totalram} * machine.mem_unit)
        return true;
    verbose_msg(-1,
                "Rings of %lu MiB for each lane and device, %lu MiB in all, do not fit into memory",
                plan.wanted.ring_bytes >> 20, all >> 20);
    return false;
}

bool open_devices(input& self) {
    for (uint32_t n = 0; n < self.plan.wanted.devices.size(); ++n) {
        self.devices.push_back(std::make_unique<device>(self.plan, n));
        if (!self.devices.back()->open())
            return false;
    }
    for (uint32_t n = 0; n < self.plan.wanted.lanes; ++n)
        self.lanes.push_back(std::make_unique<lane>(n, self.devices));
    return true;
}

}  // namespace
}  // namespace af_packet

using namespace af_packet;

int32_t plugin_type = PLUGIN_KIND_INPUT;
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;
int32_t plugin_input_sampling_is_random = 1;

const plugin_description* plugin_input_desc(void) {
    return &description;
}

// What it opens lives as long as the program, or until the program ends for want of it.
void* plugin_input_init(char* params, int needs_packets, uint16_t) {
    auto self = std::make_unique<input>();
    if (!read_settings(params, needs_packets != 0, self->plan.wanted) ||
        !fits_into_memory(self->plan) || !open_devices(*self))
        return nullptr;
    return self.release();
}

uint32_t plugin_input_sampling(void* instance) {
    return static_cast<const input*>(instance)->plan.wanted.sampling;
}

uint32_t plugin_input_queues(void* instance) {
    const auto& self = *static_cast<input*>(instance);
    for (const auto& it : self.devices)
        if (!it->open_other_lanes())
            return 0;  // which ends the start
    return self.plan.wanted.lanes;
}

uint32_t plugin_input_get_batch(void* instance, uint32_t queue, input_frame* frames,
                                uint32_t limit) {
    return static_cast<input*>(instance)->lanes[queue]->take(frames, limit);
}

void plugin_input_counters(void* instance, uint32_t queue, input_counts* counts) {
    static_cast<input*>(instance)->lanes[queue]->count(*counts);
}

void plugin_input_interfaces(void* instance, input_interface_told_function* tell, void* context) {
    for (const auto& it : static_cast<const input*>(instance)->devices) {
        const input_interface told = it->told();
        tell(context, &told);
    }
}
