// Walking, waiting, counting; see lane.h.
//
// Cost of a batch: for each device, a look at whether its next block has come.
#include "lane.h"

#include <kestrelexp/service.h>
#include <time.h>

#include <algorithm>
#include <optional>
#include <string>

#include "gathering.h"

namespace af_packet {
namespace {

constexpr int wait_ms = 10;

enum { row_joined, row_taken, row_ring_dropped, row_card_dropped };

constexpr metric_row rows[] = {
    {"kestrelexp_capture_joined_segments_total",
     "Frames longer than the MTU of their device: segments that the host has joined", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_capture_device_packets_total", "Packets received, by device and lane", nullptr,
     METRIC_COUNTER},
    {"kestrelexp_capture_device_dropped_packets_total",
     "Packets lost before the probe saw them, by device and lane", "stage=\"ring\"",
     METRIC_COUNTER},
    {"kestrelexp_capture_device_dropped_packets_total",
     "Packets lost before the probe saw them, by device and lane", "stage=\"card\"",
     METRIC_COUNTER},
};

// Names of interfaces may hold what is special in labels.
std::string escaped(const char* text) {
    std::string result;
    for (; *text; ++text) {
        if (*text == '"' || *text == '\\')
            result += '\\';
        result += *text;
    }
    return result;
}

metric_cell* register_rows(const metric_row* first, uint32_t count, const std::string& labels) {
    return metrics_register(first, count, labels.c_str());
}

// Adds what a count has grown by since it was told last.
void tell(metric_cell* cell, uint64_t count, uint64_t& told) {
    metric_add(cell, count - told);
    told = count;
}

}  // namespace

lane::lane(uint32_t number, const device_list& devices) : number_(number), waits_(devices.size()) {
    for (const auto& it : devices) {
        const std::string labels =
            std::string(metrics_label()) + ",device=\"" + escaped(it->name()) + "\"";
        const std::string lane_label = labels + ",lane=\"" + std::to_string(number) + "\"";
        ports_.push_back({.of = it.get(),
                          .joined = register_rows(&rows[row_joined], 1, labels),
                          .taken = register_rows(&rows[row_taken], 1, lane_label),
                          .ring_dropped = register_rows(&rows[row_ring_dropped], 1, lane_label),
                          .card_dropped = number == 0
                                              ? register_rows(&rows[row_card_dropped], 1, labels)
                                              : nullptr,
                          .taken_before = 0,
                          .taken_told = 0,
                          .dropped_before = 0,
                          .dropped_told = 0,
                          .card_told = 0,
                          .blocks_before = 0});
    }
}

uint32_t lane::take(input_frame* frames, uint32_t limit) {
    give_back();
    const uint32_t count = take_what_is_there(frames, limit);
    if (count > 0) [[likely]]
        return count;
    wait();
    return take_what_is_there(frames, limit);
}

void lane::give_back() {
    for (const port& at : ports_)
        if (packet_ring* const from = ring(at))
            from->give_back();
}

// Each device is first in its turn, so that none waits for another one's traffic to pause.
uint32_t lane::take_what_is_there(input_frame* frames, uint32_t limit) {
    uint32_t count = 0;
    turn_ = turn_ + 1 < ports_.size() ? turn_ + 1 : 0;
    for (size_t n = 0; n < ports_.size(); ++n) {
        const size_t place = turn_ + n < ports_.size() ? turn_ + n : turn_ + n - ports_.size();
        const port& at = ports_[place];
        packet_ring* const from = ring(at);
        if (!from)
            continue;
        uint64_t joined = 0;
        count += from->take(frames + count, limit - count, at.of->limits(), joined);
        if (joined > 0 && at.of->are_joined()) [[unlikely]]
            metric_add(at.joined, joined);
    }
    return count;
}

// The longest pause that all rings allow that had frames; see gathering.h.
uint64_t lane::gathering_ns() {
    const uint64_t now_ns = timer_get_uptime();
    const uint64_t elapsed_ns = now_ns - asked_ns_;
    asked_ns_ = now_ns;
    std::optional<uint64_t> result;
    for (port& at : ports_) {
        const packet_ring* const from = ring(at);
        if (!from)
            continue;
        const uint64_t blocks = from->blocks() - std::min(at.blocks_before, from->blocks());
        at.blocks_before = from->blocks();
        const uint64_t pause =
            pause_ns({blocks, elapsed_ns, from->block_bytes(), from->block_count()});
        if (blocks > 0)
            result = result ? std::min(*result, pause) : pause;
    }
    return result.value_or(0);
}

// All rings are empty: waits for frames or changes.
void lane::wait() {
    const uint64_t pause = gathering_ns();
    if (pause > 0) {
        const timespec length{0, static_cast<long>(pause)};
        (void)nanosleep(&length, nullptr);  // a signal ends it as well
    }
    for (size_t n = 0; n < ports_.size(); ++n) {
        const packet_ring* const from = ring(ports_[n]);
        waits_[n] = {from ? from->descriptor() : -1, POLLIN, 0};  // -1 is passed over
    }
    (void)poll(waits_.data(), waits_.size(), pause > 0 ? 0 : wait_ms);
    take_errors();
    for (port& at : ports_)
        close_if_wanted(at);
}

// An error stays until it is taken, and poll does not wait meanwhile.
void lane::take_errors() {
    const uint64_t now_ns = timer_get_uptime();
    for (size_t n = 0; n < ports_.size(); ++n) {
        const packet_ring* const from = ring(ports_[n]);
        const bool has_error =
            (waits_[n].revents & POLLERR) != 0 && from && from->take_error() != 0;
        if (number_ == 0)
            ports_[n].of->watch(now_ns, has_error);
    }
}

// The ring is looked at before the wish: a new one comes after the wish has ended, and must not be
// taken for the one that is to go.
void lane::close_if_wanted(port& at) {
    packet_ring* const from = ring(at);
    if (!from || !at.of->wants_rings_back())
        return;
    from->count();
    if (from->unread() > 0)
        return;
    at.taken_before += from->taken();
    at.dropped_before += from->dropped();
    at.of->close_ring(number_);
}

void lane::count(input_counts& counts) {
    const uint64_t now_ns = timer_get_uptime();
    for (port& at : ports_) {
        if (number_ == 0)
            at.of->watch(now_ns, false);
        count_port(at, counts);
        if (number_ == 0)
            count_device(at, counts);
    }
}

void lane::count_port(port& at, input_counts& counts) {
    uint64_t taken = at.taken_before;
    uint64_t dropped = at.dropped_before;
    if (packet_ring* const from = ring(at)) {
        from->count();
        taken += from->taken();
        dropped += from->dropped();
        counts.unread_packets += from->unread();
    }
    counts.ring_dropped_packets += dropped;
    tell(at.taken, taken, at.taken_told);
    tell(at.ring_dropped, dropped, at.dropped_told);
}

// What belongs to the device and not to a lane.
void lane::count_device(port& at, input_counts& counts) {
    const device& of = *at.of;
    counts.card_dropped_packets += of.card_dropped();
    counts.interface_changes += of.changes();
    if (!of.is_up())
        counts.is_up = 0;
    tell(at.card_dropped, of.card_dropped(), at.card_told);
}

}  // namespace af_packet
