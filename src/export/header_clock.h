// The clock in the NetFlow exporters: the time in a packet's header, the faults of the clock that
// part records into packets, and their report. Thread of the record loop.
#pragma once

#include <cstdint>

namespace kestrel {

// The time that goes into a packet's header: that of the last export call.
struct header_time {
    uint32_t uptime_ms;
    uint32_t secs;
    uint32_t nsecs;  // NetFlow v9 has no place for them
};

// The time of an export call, whose wall clock reads now_ns.
header_time header_time_at(uint64_t now_ns);

enum class clock_fault { none, backwards, future_flow };

// Records never share a header with those before a clock that went back, nor with a flow that ends
// in the future: flush, which sends the packet under way, parts them. Both faults count as one.
template <typename Flush>
clock_fault part_at_fault(bool clock_went_back, bool flow_ends_later, Flush flush) {
    clock_fault fault = clock_fault::none;
    if (clock_went_back) {
        flush();
        fault = clock_fault::backwards;
    }
    if (flow_ends_later) {
        flush();
        fault = clock_fault::future_flow;
    }
    return fault;
}

// Counts faults, and reports their number when more than the margin has passed since the last
// report. Times are in one unit, which is the exporter's.
class clock_fault_report {
  public:
    explicit constexpr clock_fault_report(uint64_t margin) : margin_(margin) {}

    void count(clock_fault fault, uint64_t now);

  private:
    uint64_t margin_;
    uint64_t last_report_ = 0;
    uint32_t faults_ = 0;  // since then
};

}  // namespace kestrel
