// The one-line rendering of a flow for the log. Touches only its arguments; any thread.
#include <arpa/inet.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "base/log.h"
#include "base/wire.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"
#include "record/protocols.h"

namespace kestrel {
namespace {

// The longest line has two 20-digit times and two IPv6 addresses.
class flow_line {
  public:
    __attribute__((format(printf, 2, 3))) void append(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        const int length = std::vsnprintf(text_ + used_, sizeof text_ - used_, format, arguments);
        va_end(arguments);
        if (length > 0)
            used_ = std::min(used_ + static_cast<size_t>(length), sizeof text_ - 1);
    }

    // address: in network order. One that cannot be rendered is left out.
    void append_address(int family, const void* address) {
        char text[INET6_ADDRSTRLEN];
        if (inet_ntop(family, address, text, sizeof text))
            append("%s,", text);
    }

    const char* text() const { return text_; }

  private:
    char text_[256] = "";
    size_t used_ = 0;
};

void append_network_layer(flow_line& line, const flow_record& record) {
    if (record.l3protocol == 4) {
        const uint32_t source_be = byte_swap(record.ipv4.srcipv4);
        const uint32_t destination_be = byte_swap(record.ipv4.dstipv4);
        line.append("IPV4,");
        line.append_address(AF_INET, &source_be);
        line.append_address(AF_INET, &destination_be);
    } else if (record.l3protocol == 6) {
        uint8_t source_be[16];
        std::reverse_copy(std::begin(record.ipv6.srcipv6), std::end(record.ipv6.srcipv6),
                          source_be);
        line.append("IPV6,");
        line.append_address(AF_INET6, source_be);
        // By decision as it is stored, that is in reverse: the line shows the record's own bytes.
        line.append_address(AF_INET6, record.ipv6.dstipv6);
    } else {
        line.append("NOIP(%u),xxx,xxx,", record.l3protocol);
    }
}

void append_transport_layer(flow_line& line, const flow_record& record) {
    switch (record.l4protocol) {
        case protocol_tcp: {
            char flags[] = "CEUAPRSF";
            for (int bit = 0; bit < 8; ++bit) {
                if (!(record.tcpflags & (0x80 >> bit)))
                    flags[bit] = '-';
            }
            line.append("TCP,%u,%u,%s", record.srcport, record.dstport, flags);
            break;
        }
        case protocol_udp:
            line.append("UDP,%u,%u", record.srcport, record.dstport);
            break;
        case protocol_icmp:
        case protocol_icmpv6:
            line.append("ICMP,%u", record.icmptypecode);
            break;
        default:
            line.append("L4:%u,xxx,xxx", record.l4protocol);
    }
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

void record_print(int level, const struct flow_record* record) {
    if (!verbose(level))
        return;
    flow_line line;
    line.append("FLOW: %14" PRIu64 ",%14" PRIu64 ",%u,%u,", record->start, record->end,
                record->packets, record->bytes);
    append_network_layer(line, *record);
    append_transport_layer(line, *record);
    verbose_msg(level, "flow: %s", line.text());
}
