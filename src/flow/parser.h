// The packet parser: one Ethernet frame becomes a one-packet flow record and a 64-bit flow key. Its
// entry points for plugins are in kestrelexp/packet.h; here is what only the program itself uses.
// Runs on the thread that reads the input; keeps nothing but that thread's parse position.
#pragma once

#include <cstdint>

#include "kestrelexp/packet.h"

namespace kestrel {

// A frame and where its headers end, as get_packet_data tells of it.
struct packet_frame {
    const uint8_t* data;  // null: none
    uint32_t captured_length;
    uint32_t header_length;
};

// Chooses the fields that enter the key (enum flow_mask). Call it before any thread parses.
void parser_set_flow_mask(uint32_t mask);

// Why a frame is no flow.
enum class discard_reason : uint8_t {
    not_ip = 1,  // the EtherType, after any tags and labels, is none of ours
    truncated,   // the captured bytes end before the IP header begins
    ip_version,  // what stands where the IP header should begin has another version than 4 and 6
    last = ip_version
};

// Parses a frame of an input driver into a prepared record: what packet_to_flow_reader does with
// the frames that it takes. sampling: the driver's. Returns the key, which is negative, or the
// discard_reason of a frame that is no flow.
flow_key parse_packet(const uint8_t* frame, const packet_header& header, uint32_t sampling,
                      flow_record& record);

// The frame that the calling thread parsed last, and where its headers end.
packet_frame parser_position();
// From now on get_packet_data on this thread tells of none, until the next one is parsed.
void parser_forget_position();

// While it lives, get_packet_data on this thread tells of the frame; afterwards of none.
class packet_in_hand {
  public:
    explicit packet_in_hand(const packet_frame& frame);
    ~packet_in_hand();
    packet_in_hand(const packet_in_hand&) = delete;
    packet_in_hand& operator=(const packet_in_hand&) = delete;
};

}  // namespace kestrel
