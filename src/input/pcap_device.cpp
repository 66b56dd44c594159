// Opening, waiting, following the device's changes, counting; see pcap_device.h.
//
// Cost of a frame: one call of libpcap. Without frames: a wait of 25 ms, and a look at the name
// once a second.
#include "input/pcap_device.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "base/clock.h"
#include "base/log.h"
#include "input/packet_socket.h"

namespace kestrel {
namespace {

constexpr int promiscuous = 1;
constexpr int timeout_ms = 10;
// Frames that have come are handed over after timeout_ms and a tick of the kernel: one call sees
// them.
constexpr int wait_ms = 25;
constexpr useconds_t pause_after_error_us = 10'000;
constexpr uint64_t look_period_ns = ns_per_second;

// ---- Opening ----

// Gets ready to translate frames of the handle. Returns whether that is possible; if not, reason
// says why.
bool set_link_type(pcap_device& device, pcap_t* handle, char (&reason)[PCAP_ERRBUF_SIZE]) {
    const int link_type = pcap_datalink(handle);
    const link_format* const format =
        link_type == DLT_EN10MB ? nullptr : link_format_find(link_type);
    if (link_type != DLT_EN10MB && format == nullptr) {
        const char* type = pcap_datalink_val_to_name(link_type);
        (void)snprintf(reason, sizeof reason,
                       "does not deliver Ethernet frames but %s, which cannot be translated. Use "
                       "an Ethernet, tunnel or PPP device, or \"any\"",
                       type ? type : "an unknown link type");
        return false;
    }
    device.format = format;
    if (format != nullptr && device.ethernet_frame == nullptr) {
        device.ethernet_room = LINK_ETHERNET_HEADER + static_cast<uint32_t>(pcap_snapshot(handle));
        device.ethernet_frame = static_cast<uint8_t*>(malloc_wrapper(device.ethernet_room, 1));
    }
    return true;
}

enum class opening : uint8_t { done, refused_by_libpcap, refused_for_its_kind };

// Opens a handle that never blocks: the wait is ours, as libpcap's has no end on a device without
// traffic. Unless it is done, reason says why.
opening open_handle(pcap_device& device, pcap_t*& handle, char (&reason)[PCAP_ERRBUF_SIZE]) {
    handle = pcap_open_live(device.name, device.snap_length, promiscuous, timeout_ms, reason);
    if (handle == nullptr)
        return opening::refused_by_libpcap;
    opening result = opening::done;
    if (pcap_setnonblock(handle, 1, reason) != 0)
        result = opening::refused_by_libpcap;
    else if (!set_link_type(device, handle, reason))
        result = opening::refused_for_its_kind;
    if (result != opening::done)
        pcap_close(handle);
    return result;
}

// The capture is on the interface of this sight.
void attach(pcap_device& device, const link_sight& sight) {
    char name[IF_NAMESIZE] = "";
    device.is_alias = if_indextoname(static_cast<unsigned>(sight.index), name) != nullptr &&
                      std::strcmp(name, device.name) != 0;
    device.is_loopback = sight.is_loopback;
    device.hardware = sight.hardware;
    device.state.attach(sight.index);
}

// ---- Counting ----

// libpcap adds up what the kernel resets with each look.
void take_numbers(pcap_device& device) {
    pcap_stat now{};
    if (pcap_stats(device.handle, &now) == 0)
        device.counts.take({now.ps_recv, now.ps_drop, now.ps_ifdrop});
}

// On loopback and "any" libpcap itself passes over some frames, uncounted.
uint64_t unread(const pcap_device& device) {
    return device.is_watched && !device.is_loopback ? device.counts.unread() : 0;
}

// ---- Changes ----

// A fault that may come again at once.
void say_limited(pcap_device& device, const char* joint, const char* fault) {
    const uint64_t times = device.fault_limit.count(system_uptime_ns());
    if (times == 1)
        verbose_msg(-1, "Device %s%s%s", device.name, joint, fault);
    else if (times > 1)
        verbose_msg(-1, "Device %s%s%s (%lu times)", device.name, joint, fault, times);
}

// What libpcap still has to tell of the change is told with it.
void say(pcap_device& device, const char* what) {
    device.changes += 1;
    *pcap_geterr(device.handle) = '\0';
    verbose_msg(-1, "Device %s %s", device.name, what);
}

constexpr char text_down[] = "is down: waiting for it to come up";
constexpr char text_up[] = "is up: capturing again";

void follow(pcap_device& device, link_change change) {
    switch (change) {
        case link_change::none:
            return;
        case link_change::went_down:
            return say(device, text_down);
        case link_change::came_up:
            return say(device, text_up);
        case link_change::went_down_and_up:
            say(device, text_down);
            return say(device, text_up);
    }
}

// new_name: what it is called now; null: it is not there, or that is not known.
void lose(pcap_device& device, const char* new_name) {
    packet_socket_leave(pcap_fileno(device.handle), device.state.index());
    device.state.lose();
    char what[64];
    (void)snprintf(what, sizeof what, "is gone%s%s%s: trying every second",
                   new_name ? " (it is called " : "", new_name ? new_name : "",
                   new_name ? " now)" : "");
    say(device, what);
}

// In place of the old handle, whose frames were all read: the device is of another kind.
bool reopen(pcap_device& device) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle = nullptr;
    const opening result = open_handle(device, handle, reason);
    if (result != opening::done) {
        say_limited(device, result == opening::refused_by_libpcap ? ": " : " ", reason);
        return false;
    }
    take_numbers(device);
    device.counts.begin_anew();
    pcap_close(std::exchange(device.handle, handle));
    return true;
}

// Tries to capture from what has the name now. Only an interface of the same kind can take over
// the handle.
void try_again(pcap_device& device, const link_sight& sight, bool may_reopen) {
    if (sight.index == 0 || !sight.is_up)
        return;
    const bool is_same_kind = sight.hardware == device.hardware;
    if (is_same_kind ? !packet_socket_bind(pcap_fileno(device.handle), sight.index)
                     : !may_reopen || !reopen(device))
        return;
    attach(device, sight);
    say(device, "is back: capturing again");
}

// Once a second, or when something has changed: what stands under the name?
void look(pcap_device& device, uint64_t now_ns, bool may_reopen) {
    const auto sight = look_at_link(device.name);
    if (!sight)
        return;
    if (!device.state.is_gone() && sight->index != device.state.index())
        lose(device, nullptr);
    if (device.state.is_gone())
        try_again(device, *sight, may_reopen);
    else
        follow(device, device.state.note(sight->index, sight->is_up, now_ns));
}

void take_event(pcap_device& device, const link_event& event, uint64_t now_ns) {
    if (event.index != device.state.index())
        return;
    const bool is_renamed =
        !device.is_alias && event.name[0] != '\0' && std::strcmp(event.name, device.name) != 0;
    if (event.is_removed || is_renamed)
        lose(device, event.is_removed ? nullptr : event.name);
    else
        follow(device, device.state.note(event.index, event.is_up, now_ns));
}

// What the kernel has announced. While the device is gone, any change may have brought it back.
void take_events(pcap_device& device, uint64_t now_ns) {
    bool has_events = false;
    for (link_event event; device.events.next(event); has_events = true)
        take_event(device, event, now_ns);
    if (has_events && device.state.is_gone())
        look(device, now_ns, false);
    follow(device, device.state.pass(now_ns));
}

void watch(pcap_device& device) {
    const uint64_t now_ns = system_uptime_ns();
    take_events(device, now_ns);
    if (now_ns < device.next_look_ns)
        return;
    device.next_look_ns = now_ns + look_period_ns;
    look(device, now_ns, true);
}

// pcap_next tells neither a time-out from an error nor one error from the next. What it says of a
// change of the device is said already, in our words; and the reader does not spin on it.
void note_error(pcap_device& device, bool is_explained) {
    char* const error = pcap_geterr(device.handle);
    if (*error == '\0')
        return;
    if (!is_explained)
        say_limited(device, ": ", error);
    *error = '\0';
    usleep(pause_after_error_us);
}

// The capture ring is empty: waits for frames or changes, at most wait_ms.
[[gnu::noinline]] void wait_for_news(pcap_device& device) {
    pollfd waits[] = {{pcap_fileno(device.handle), POLLIN, 0},
                      {device.events.descriptor(), POLLIN, 0}};
    (void)poll(waits, std::size(waits), wait_ms);  // a signal ends it as well
    const uint64_t changes = device.changes;
    if (device.is_watched)
        watch(device);
    note_error(device, device.is_watched && (!device.state.is_up() || device.changes != changes));
}

}  // namespace

bool pcap_device_open(pcap_device& device, const char* name, int snap_length) {
    device.name = name;
    device.snap_length = snap_length;
    (void)device.events.open();  // before the handle, so that no change is missed; looks go on
    char reason[PCAP_ERRBUF_SIZE] = "";
    const opening result = open_handle(device, device.handle, reason);
    if (result == opening::refused_for_its_kind)
        verbose_msg(-1, "Device %s %s", name, reason);
    if (result != opening::done) {
        device.events.close();
        return false;
    }
    const auto sight = look_at_link(name);
    device.is_watched = std::strcmp(name, "any") != 0 && sight && sight->index != 0;
    if (!device.is_watched) {
        device.events.close();
        return true;
    }
    attach(device, *sight);
    take_events(device, system_uptime_ns());  // our own opening is among them
    return true;
}

const uint8_t* pcap_device_next(pcap_device& device, pcap_pkthdr& header) {
    const uint8_t* frame = pcap_next(device.handle, &header);
    if (frame == nullptr) [[unlikely]] {
        wait_for_news(device);
        frame = pcap_next(device.handle, &header);
        if (frame == nullptr)
            return nullptr;
    }
    device.counts.add_delivered();
    return frame;
}

void pcap_device_count(pcap_device& device, input_counts& counts) {
    if (device.is_watched)
        take_events(device, system_uptime_ns());  // with frames at hand nobody waits for news
    take_numbers(device);
    counts.ring_dropped_packets = device.counts.ring_dropped();
    counts.card_dropped_packets = device.counts.card_dropped();
    counts.interface_changes = device.changes;
    counts.unread_packets = unread(device);
    counts.is_up = !device.is_watched || device.state.is_up() ? 1 : 0;
}

}  // namespace kestrel
