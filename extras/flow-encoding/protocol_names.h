// Names of IP protocols, by their numbers, as goflow2 writes them: mostly the keywords that IANA
// has for them. Constant data; any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace flow_encoding {

// Of every number, if only to say that it has no name.
std::string_view protocol_name(uint8_t number);

// Whether the number stands for a protocol.
bool is_assigned(uint8_t number);

}  // namespace flow_encoding
