// The packet clock: time as the packets of a replay tell it, in place of the system's clocks. The
// main thread moves it from record to record, so that exports see the time at which each record
// left the flow cache; it stands still in between. Any thread may read it.
#pragma once

#include <cstdint>

namespace kestrel {

// Puts the packet clock in place of the system's and sets it to first_ns (ns since the epoch). Its
// uptime begins at one minute, so that packets of a file that is not in order do not lie before
// the start.
void packet_clock_start(uint64_t first_ns);

// Moves the clock on; a time that it has passed changes nothing.
void packet_clock_advance(uint64_t now_ns);

}  // namespace kestrel
