// A device that frames are captured from through libpcap, over all its changes: it may go down or
// away and come back under its name. Says each change once. Reader thread after start-up.
//
// One libpcap handle serves for as long as the kind of device stays: its socket is bound to the
// interface that has the name, which needs no privilege, so it works after -u as well. Frames that
// are in the capture ring stay there meanwhile.
#pragma once

#include <net/if.h>
#include <pcap/pcap.h>

#include <cstdint>

#include "base/message_limit.h"
#include "input/capture_counts.h"
#include "input/link_state.h"
#include "input/network_link.h"
#include "kestrelexp/link.h"
#include "kestrelexp/plugin.h"

namespace kestrel {

struct pcap_device {
    const char* name;
    int snap_length;
    pcap_t* handle;
    const link_format* format;  // null: Ethernet frames, handed on where libpcap has them
    uint8_t* ethernet_frame;    // room for one that was translated; null for Ethernet
    uint32_t ethernet_room;     // bytes

    bool is_watched;  // a network interface; else "any" or something that does not change
    bool is_alias;    // the name is not the one in the kernel's announcements
    bool is_loopback;
    uint16_t hardware;  // ARPHRD_...
    link_events events;
    link_state state;
    uint64_t next_look_ns;  // uptime
    uint64_t changes;
    message_limit fault_limit;

    capture_counts counts;
};

// Opens the device, at the start. libpcap's own words about one that cannot be opened are not
// shown, those about a link type that cannot be translated are. Returns whether it captures.
bool pcap_device_open(pcap_device& device, const char* name, int snap_length);

// The next frame, valid until the next call; null when none came within some 25 ms.
const uint8_t* pcap_device_next(pcap_device& device, pcap_pkthdr& header);

// Fills in all but what was sampled out.
void pcap_device_count(pcap_device& device, input_counts& counts);

}  // namespace kestrel
