// One network device with a ring for each lane, over all its changes: it may go down or away, be
// renamed, and come back under its name. Says each change once.
//
// Lane 0 watches the device and moves its rings; each lane walks its own. A ring that stands alone
// is bound to the new interface, which needs no privilege. Rings of a group cannot be: each lane
// drains and closes its own, then lane 0 opens new ones in a new group.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "network_link.h"
#include "packet_ring.h"
#include "settings.h"
#include "socket_filter.h"

namespace af_packet {

// What all devices have in common. Programs are translated when they are needed first: on the main
// thread while the program starts, then by lane 0.
struct capture_plan {
    settings wanted;
    filter_program programs[2];  // by frame_kind
    bool is_translated[2];

    uint64_t all_ring_bytes() const {
        return wanted.ring_bytes * wanted.lanes * wanted.devices.size();
    }
};

class device {
  public:
    device(capture_plan& plan, uint32_t position);
    ~device();
    device(const device&) = delete;
    device& operator=(const device&) = delete;

    const char* name() const { return name_.c_str(); }

    // Opens the ring of lane 0, which has all frames then; and those of the other lanes, which
    // share them. Main thread, while the program starts. Return false when that cannot be done, and
    // have said why.
    bool open();
    bool open_other_lanes();

    // For each lane, on its thread. The ring is null while there is none.
    packet_ring* ring(uint32_t lane) const { return slots_[lane].load(std::memory_order_acquire); }
    frame_limits limits() const { return {mtu_.load(std::memory_order_relaxed)}; }
    // Whether the lane is to drain its ring and then to close it.
    bool wants_rings_back() const { return wants_rings_back_.load(std::memory_order_acquire); }
    void close_ring(uint32_t lane);
    // Whether frames longer than limits() are segments that were joined; says so once. They are
    // not when the MTU was raised meanwhile.
    bool are_joined();

    // On lane 0. has_error: the socket has just told of one.
    void watch(uint64_t now_ns, bool has_error);
    // What frames come from, or came from last.
    input_interface told() const { return {interface_number(index_), name(), alias_}; }
    bool is_up() const { return standing_ == standing::up || standing_ == standing::settling; }
    uint64_t changes() const { return changes_; }
    uint64_t card_dropped() const { return card_dropped_; }

  private:
    enum class standing : uint8_t {
        up,
        settling,  // down for a moment: perhaps on the way to something else
        down,
        gone,
    };

    bool open_rings(uint32_t first_lane, const link_sight& sight);
    ring_fault open_ring(packet_ring& ring, const link_sight& sight);
    int wanted_group() const;
    bool join(packet_ring& ring);
    bool make_program(const link_sight& sight, filter_program& program);
    bool is_drained() const;
    void attach(const link_sight& sight);
    void look(const link_sight& sight, uint64_t now_ns, bool has_error);
    void lose();
    void try_again(const link_sight& sight);
    bool bind_again(const link_sight& sight);
    void count_card(const link_sight& sight);
    bool has_mtu_grown();
    void say_change(const char* what);
    void say_joined();
    void say_fault(ring_fault fault);
    void say_fault(const char* joint, const std::string& text);
    uint64_t period_ns() const;

    capture_plan& plan_;
    std::string name_;
    uint32_t position_;  // among the devices
    uint32_t lanes_ = 1;
    bool is_grouped_;
    int group_ = packet_ring::new_group;
    std::vector<std::atomic<packet_ring*>> slots_;  // by lane
    std::atomic<bool> wants_rings_back_ = false;
    std::atomic<uint32_t> mtu_ = 0;
    std::atomic<bool> is_joined_said_ = false;

    standing standing_ = standing::up;
    int index_ = 0;
    char alias_[alias_size] = "";
    uint64_t down_since_ns_ = 0;
    uint64_t next_look_ns_ = 0;
    uint64_t changes_ = 0;
    uint64_t card_seen_ = 0;  // by the interface's counters
    uint64_t card_dropped_ = 0;
    bool is_fault_said_ = false;  // since the device was lost
};

}  // namespace af_packet
