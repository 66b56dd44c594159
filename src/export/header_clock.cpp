// What the NetFlow exporters keep of the clock; see header_clock.h.
#include "export/header_clock.h"

#include "base/clock.h"
#include "base/log.h"

namespace kestrel {

header_time header_time_at(uint64_t now_ns) {
    return {static_cast<uint32_t>(timer_get_uptime() / ns_per_ms),
            static_cast<uint32_t>(now_ns / ns_per_second),
            static_cast<uint32_t>(now_ns % ns_per_second)};
}

void clock_fault_report::count(clock_fault fault, uint64_t now) {
    if (fault == clock_fault::none)
        return;
    ++faults_;
    if (now <= last_report_ + margin_)
        return;
    verbose_msg(-1, "Machine time mangled :-( (%i)", static_cast<int>(faults_));
    last_report_ = now;
    faults_ = 0;
}

}  // namespace kestrel
