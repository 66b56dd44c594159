// Opening, watching, following; see device.h.
#include "device.h"

#include <kestrelexp/service.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace af_packet {
namespace {

constexpr uint64_t ns_per_ms = 1'000'000;
// A device that is deleted, moved or renamed goes down first. A change that lasts shorter than this
// is the beginning of the next one.
constexpr uint64_t settling_ns = 100 * ns_per_ms;
constexpr uint64_t look_period_ns = 250 * ns_per_ms;  // the interface's counters, its MTU, its name
constexpr uint64_t down_period_ns = 100 * ns_per_ms;
constexpr uint64_t gone_period_ns = 1000 * ns_per_ms;
constexpr uint64_t short_period_ns = 10 * ns_per_ms;  // while something is about to happen

constexpr char text_down[] = "is down: waiting for it to come up";
constexpr char text_up[] = "is up: capturing again";

unsigned long mebibytes(uint64_t bytes) {
    return bytes >> 20;
}

}  // namespace

device::device(capture_plan& plan, uint32_t position)
    : plan_(plan),
      name_(plan.wanted.devices[position]),
      position_(position),
      is_grouped_(plan.wanted.group >= 0),
      slots_(plan.wanted.lanes) {}

device::~device() {
    for (uint32_t lane = 0; lane < slots_.size(); ++lane)
        close_ring(lane);
}

// ---- Opening ----

bool device::open() {
    const auto sight = look_at_link(name());
    if (!sight || sight->index == 0) {
        say_fault(ring_fault::no_interface);
        return false;
    }
    if (!sight->is_up) {
        verbose_msg(-1, "Device %s is down", name());
        return false;
    }
    if (!open_rings(0, *sight))
        return false;
    attach(*sight);
    return true;
}

bool device::open_other_lanes() {
    lanes_ = plan_.wanted.lanes;
    if (lanes_ == 1)
        return true;
    const auto sight = look_at_link(name());
    if (!sight || sight->index != index_) {
        say_fault(ring_fault::no_interface);
        return false;
    }
    if (!is_grouped_ && !join(*ring(0))) {
        say_fault(ring_fault::no_group);
        return false;
    }
    is_grouped_ = true;
    return open_rings(1, *sight);
}

// All of them have joined before the first one takes frames: until then each would have had all.
bool device::open_rings(uint32_t first_lane, const link_sight& sight) {
    filter_program program;
    std::vector<std::unique_ptr<packet_ring>> opened;
    for (uint32_t lane = first_lane; lane < lanes_; ++lane) {
        auto ring = std::make_unique<packet_ring>();
        if (const ring_fault fault = open_ring(*ring, sight); fault != ring_fault::none) {
            say_fault(fault);
            return false;
        }
        opened.push_back(std::move(ring));
    }
    if (!make_program(sight, program))
        return false;
    for (const auto& ring : opened) {
        if (ring->attach_filter(program) != ring_fault::none) {
            say_fault(ring_fault::no_program);
            return false;
        }
    }
    for (uint32_t lane = first_lane; lane < lanes_; ++lane)
        slots_[lane].store(opened[lane - first_lane].release(), std::memory_order_release);
    return true;
}

// A socket joins after it was bound: the group is that of the interface. It takes nothing yet, so
// that no frame comes twice.
ring_fault device::open_ring(packet_ring& ring, const link_sight& sight) {
    ring_fault fault = ring.open(plan_.wanted.ring_bytes, plan_.wanted.snap_bytes);
    if (fault == ring_fault::none)
        fault = ring.bind(sight.index, plan_.wanted.is_promiscuous);
    if (fault == ring_fault::none && is_grouped_ && !join(ring))
        fault = ring_fault::no_group;
    return fault;
}

// Numbers have 16 bits: 0 comes after the last one.
int device::wanted_group() const {
    return (plan_.wanted.group + static_cast<int>(position_)) & UINT16_MAX;
}

bool device::join(packet_ring& ring) {
    int group = group_;
    if (group == packet_ring::new_group && plan_.wanted.group >= 0)
        group = wanted_group();
    const int joined = ring.join(group);
    if (joined >= 0)
        group_ = joined;
    return joined >= 0;
}

bool device::make_program(const link_sight& sight, filter_program& program) {
    const frame_kind kind = kind_of(sight.hardware);
    if (kind == frame_kind::unknown) {
        say_fault(" ", std::string("does not deliver Ethernet frames but ") +
                           name_of(sight.hardware) +
                           ", which cannot be translated. Use an Ethernet, tunnel or PPP device");
        return false;
    }
    const settings& wanted = plan_.wanted;
    const auto place = static_cast<size_t>(kind);
    filter_program& body = plan_.programs[place];
    if (!plan_.is_translated[place]) {
        std::string reason;
        if (wanted.expression.empty())
            body = take_all(wanted.snap_bytes);
        else if (!compile_expression(wanted.expression, kind, name(), wanted.snap_bytes, body,
                                     reason)) {
            say_fault(": ", "filter=" + wanted.expression + ": " + reason);
            return false;
        }
        plan_.is_translated[place] = true;
    }
    program = put_in_front(body, wanted.sampling, is_loopback(sight.hardware));
    return true;
}

// The capture is on the interface of this sight, which is up.
void device::attach(const link_sight& sight) {
    index_ = sight.index;
    std::memcpy(alias_, sight.alias, sizeof alias_);
    standing_ = standing::up;
    is_fault_said_ = false;
    card_seen_ = sight.card_lost;
    mtu_.store(sight.mtu, std::memory_order_relaxed);
}

// ---- Following ----

uint64_t device::period_ns() const {
    switch (standing_) {
        case standing::up:
            return look_period_ns;
        case standing::settling:
            return short_period_ns;
        case standing::down:
            return down_period_ns;
        case standing::gone:
            return is_drained() ? gone_period_ns : short_period_ns;
    }
    __builtin_unreachable();
}

void device::watch(uint64_t now_ns, bool has_error) {
    if (now_ns < next_look_ns_ && !has_error)
        return;
    if (const auto sight = look_at_link(name()))
        look(*sight, now_ns, has_error);
    next_look_ns_ = now_ns + period_ns();
}

void device::look(const link_sight& sight, uint64_t now_ns, bool has_error) {
    if (standing_ != standing::gone && sight.index != index_)
        lose();
    if (standing_ == standing::gone)
        return try_again(sight);
    mtu_.store(sight.mtu, std::memory_order_relaxed);
    std::memcpy(alias_, sight.alias, sizeof alias_);
    count_card(sight);
    if (sight.is_up) {
        // An error is left of a moment that no look has seen.
        if (standing_ == standing::settling || (standing_ == standing::up && has_error))
            say_change(text_down);
        if (standing_ != standing::up || has_error)
            say_change(text_up);
        standing_ = standing::up;
        return;
    }
    if (standing_ == standing::up) {
        standing_ = standing::settling;
        down_since_ns_ = now_ns;
    } else if (standing_ == standing::settling && now_ns - down_since_ns_ >= settling_ns) {
        standing_ = standing::down;
        say_change(text_down);
    }
}

// It was deleted or moved, or its name is not ours any more. What the rings have is still taken.
void device::lose() {
    for (const auto& slot : slots_) {
        if (const packet_ring* const ring = slot.load(std::memory_order_relaxed)) {
            (void)ring->attach_filter(packet_ring::take_nothing());  // memory for one instruction
            ring->leave(index_);
        }
    }
    char now_called[IF_NAMESIZE] = "";
    std::string what = "is gone";
    if (if_indextoname(static_cast<unsigned>(index_), now_called) && name_ != now_called)
        what += std::string(" (it is called ") + now_called + " now)";
    say_change((what + ": trying every second").c_str());
    standing_ = standing::gone;
    if (is_grouped_)
        wants_rings_back_.store(true, std::memory_order_release);
}

bool device::is_drained() const {
    return !is_grouped_ ||
           std::all_of(slots_.begin(), slots_.end(), [](const std::atomic<packet_ring*>& slot) {
               return slot.load(std::memory_order_acquire) == nullptr;
           });
}

void device::try_again(const link_sight& sight) {
    if (sight.index == 0 || !sight.is_up || !is_drained())
        return;
    if (is_grouped_) {
        group_ = packet_ring::new_group;
        wants_rings_back_.store(false, std::memory_order_relaxed);
    }
    if (is_grouped_ ? !open_rings(0, sight) : !bind_again(sight))
        return;
    attach(sight);
    say_change("is back: capturing again");
}

bool device::bind_again(const link_sight& sight) {
    filter_program program;
    if (!make_program(sight, program))
        return false;
    ring_fault fault = ring(0)->bind(sight.index, plan_.wanted.is_promiscuous);
    if (fault == ring_fault::none)
        fault = ring(0)->attach_filter(program);
    if (fault != ring_fault::none)
        say_fault(fault);
    return fault == ring_fault::none;
}

bool device::has_mtu_grown() {
    const auto sight = look_at_link(name());
    if (!sight || sight->mtu <= limits().mtu)
        return false;
    mtu_.store(sight->mtu, std::memory_order_relaxed);
    return true;
}

// What is said once has to be true, so the MTU is asked for once more before that; later the looks
// of lane 0 are enough.
bool device::are_joined() {
    if (is_joined_said_.load(std::memory_order_relaxed))
        return true;
    if (has_mtu_grown())
        return false;
    say_joined();
    return true;
}

void device::close_ring(uint32_t lane) {
    delete slots_[lane].load(std::memory_order_relaxed);
    slots_[lane].store(nullptr, std::memory_order_release);
}

// A counter that goes back has begun anew.
void device::count_card(const link_sight& sight) {
    if (sight.card_lost > card_seen_)
        card_dropped_ += sight.card_lost - card_seen_;
    card_seen_ = sight.card_lost;
}

// ---- Words ----

void device::say_change(const char* what) {
    changes_ += 1;
    verbose_msg(-1, "Device %s %s", name(), what);
}

void device::say_joined() {
    if (is_joined_said_.exchange(true, std::memory_order_relaxed))
        return;
    verbose_msg(0,
                "Device %s: frames longer than its MTU of %u bytes. The host joins segments before "
                "they are captured, so that packets are counted too few. To have them as they are "
                "on the wire: ethtool -K %s gro off lro off gso off tso off",
                name(), limits().mtu, name());
}

void device::say_fault(ring_fault fault) {
    const std::string reason = std::strerror(errno);
    const settings& wanted = plan_.wanted;
    switch (fault) {
        case ring_fault::none:
            return;
        case ring_fault::no_interface:
            return say_fault(": ", "there is no such device");
        case ring_fault::no_right:
            return say_fault(": ", "the right to capture is missing (CAP_NET_RAW)");
        case ring_fault::no_memory:
            return say_fault(": ", "a ring of " + std::to_string(mebibytes(wanted.ring_bytes)) +
                                       " MiB does not fit into memory");
        case ring_fault::no_group:
            return say_fault(": ", "fanout group " +
                                       (wanted.group >= 0 ? std::to_string(wanted_group()) + " "
                                                          : std::string()) +
                                       "cannot be joined: " + reason +
                                       ". All its members have to be on one device and share its "
                                       "frames by flow hash");
        case ring_fault::no_program:
            return say_fault(": ", "the kernel refuses the expression: " + reason);
        case ring_fault::other:
            return say_fault(": ", reason);
    }
}

// What is tried every second is said once.
void device::say_fault(const char* joint, const std::string& text) {
    if (!is_fault_said_)
        verbose_msg(-1, "Device %s%s%s", name(), joint, text.c_str());
    is_fault_said_ = true;
}

}  // namespace af_packet
