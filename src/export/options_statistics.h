// What an export tells of itself and of the probe, read from the counters. Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace kestrel {

// The values of one record of each kind, in the order of its fields (options_form.cpp).
struct options_statistics {
    uint64_t sent[3];      // octets, messages, flow records
    uint64_t observed[2];  // flows; packets ignored: lost before they were read, or no good
    uint64_t unsent[3];    // flow records, packets, octets (of packets of the mean size)
};

// label: of the export's metrics.
options_statistics read_statistics(const std::string& label);

}  // namespace kestrel
