// The packet parser: one Ethernet frame becomes a one-packet flow record and a 64-bit flow key. Its
// entry points for plugins are in kestrelexp/packet.h; here is what only the program itself uses.
// Runs on the thread that reads the input; keeps nothing but that thread's parse position.
#pragma once

#include <cstdint>

#include "kestrelexp/packet.h"

namespace kestrel {

// Chooses the fields that enter the key (enum flow_mask). Call it before any thread parses.
void parser_set_flow_mask(uint32_t mask);

// Parses a frame of an input driver into a prepared record: what packet_to_flow_reader does with
// the frames that it takes. sampling: the driver's. Returns the key, or 0 when the frame is no
// flow.
flow_key parse_packet(const uint8_t* frame, const packet_header& header, uint32_t sampling,
                      flow_record& record);

// Makes a frame that another piece of code parsed the calling thread's parse position, as
// get_packet_data will report it.
void parser_keep_position(const uint8_t* frame, uint32_t captured_length, uint32_t header_length);

}  // namespace kestrel
