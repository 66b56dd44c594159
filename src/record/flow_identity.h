// Which flow a record belongs to, as far as finished records tell it: records of one flow, such as
// those that the active time-out cuts, have one identity. It is not the flow key, which records do
// not carry, but never tells apart what the key does not.
#pragma once

#include <cstdint>

#include "kestrelexp/record.h"

namespace kestrel {

// The fields that enter the flow key (enum flow_mask). Call it before any record is finished.
void flow_identity_set_mask(uint32_t mask);

// Of the addresses, the protocol and the ports, as far as the mask has them. Any thread.
uint64_t flow_identity(const flow_record& record);

}  // namespace kestrel
