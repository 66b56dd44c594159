#include "message_key.h"

#include <kestrelexp/getter.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace kafka {

namespace {

using end_point = std::array<uint8_t, 16 + 2>;

void put_port(const flow_record& record, uint16_t port, uint8_t* to) {
    const bool has_ports = record_ports_ok(nullptr, &record) != 0;
    to[0] = has_ports ? static_cast<uint8_t>(port >> 8) : uint8_t{0};
    to[1] = has_ports ? static_cast<uint8_t>(port) : uint8_t{0};
}

// Of the end point that it makes, bytes.
size_t address_length(const flow_record& record) {
    return record.l3protocol == 6 ? 16 : 4;
}

end_point make_end(const flow_record& record, uint32_t four, const uint8_t* six, uint16_t port) {
    end_point made{};
    const size_t length = address_length(record);
    if (length == 4)
        for (size_t n = 0; n < length; ++n)
            made[n] = static_cast<uint8_t>(four >> (24 - 8 * n));
    else
        std::reverse_copy(six, six + length, made.begin());  // a record has them lowest byte first
    put_port(record, port, made.data() + length);
    return made;
}

}  // namespace

size_t write_flow_key(const flow_record& record, uint8_t* to) {
    const size_t size = address_length(record) + 2;
    end_point one = make_end(record, record.ipv4.srcipv4, record.ipv6.srcipv6, record.srcport);
    end_point other = make_end(record, record.ipv4.dstipv4, record.ipv6.dstipv6, record.dstport);
    if (other < one)
        std::swap(one, other);
    std::memcpy(to, one.data(), size);
    std::memcpy(to + size, other.data(), size);
    to[2 * size] = record.l4protocol;
    return 2 * size + 1;
}

}  // namespace kafka
