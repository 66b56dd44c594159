#include "record/flow_identity.h"

#include <cstring>

#include "record/protocols.h"

namespace kestrel {
namespace {

// Written while the command line is followed, read by who exports.
uint32_t flow_mask = FLOW_MASK_DEFAULT;

uint64_t with(uint64_t hash, uint64_t word) {
    constexpr uint64_t odd = 0x9E3779B97F4A7C15;  // the golden ratio's digits
    hash = (hash ^ word) * odd;
    return hash ^ (hash >> 32);
}

uint64_t with_addresses(uint64_t hash, const flow_record& record) {
    if (record.l3protocol == 4)
        return with(hash, uint64_t{record.ipv4.srcipv4} << 32 | record.ipv4.dstipv4);
    uint64_t words[4];
    std::memcpy(words, record.ipv6.srcipv6, 16);
    std::memcpy(words + 2, record.ipv6.dstipv6, 16);
    for (const uint64_t word : words)
        hash = with(hash, word);
    return hash;
}

}  // namespace

void flow_identity_set_mask(uint32_t mask) {
    flow_mask = mask;
}

uint64_t flow_identity(const flow_record& record) {
    uint64_t hash = 0;
    if ((flow_mask & FLOW_MASK_IP) != 0)
        hash = with_addresses(hash, record);
    if ((flow_mask & FLOW_MASK_L4_ID) != 0)
        hash = with(hash, record.l4protocol);
    if ((flow_mask & FLOW_MASK_PORTS) != 0 && has_ports(record.l4protocol))
        hash = with(hash, uint64_t{record.srcport} << 16 | record.dstport);
    return hash;
}

}  // namespace kestrel
