// The key of a message, by which Kafka chooses its partition: none, the probe's, or the flow's.
#pragma once

#include <kestrelexp/record.h>

#include <cstddef>
#include <cstdint>

namespace kafka {

enum class message_key { none, exporter, flow };

// Of the key of a flow, bytes: two addresses and ports, and the protocol.
inline constexpr size_t longest_flow_key = 2 * (16 + 2) + 1;

// Writes the key of a flow and returns its bytes. Both directions of a conversation have the same:
// the smaller address with its port comes first, as on the wire, and the protocol last. Ports are 0
// where the protocol has none.
size_t write_flow_key(const flow_record& record, uint8_t* to);

}  // namespace kafka
