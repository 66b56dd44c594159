// What counts as a loss, and what somebody asked to have left out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "readings.h"

namespace metrics {

struct reason_count {
    std::string reason;
    uint64_t packets;
    bool is_loss;  // nobody asked for it
};

// Frames that never reached the parser. Reasons that have not come up are left out, here and below.
std::vector<reason_count> capture_losses(const reading_list& list);
// Frames that belong to no flow: not lost, as there is nothing to count.
std::vector<reason_count> parser_losses(const reading_list& list);
// What an export was handed and has not sent.
std::vector<reason_count> export_losses(const reading_list& list, std::string_view export_name);

// Of all places, what nobody asked for.
uint64_t all_lost_packets(const reading_list& list);

}  // namespace metrics
