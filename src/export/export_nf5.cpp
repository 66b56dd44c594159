// The "netflow-v5" exporter: IPv4 flows as NetFlow version 5 packets of at most 30 records over
// UDP. Fields come straight from the flow record; only the AS numbers come through getters. Record
// loop thread only. It never reconnects, save in the background, and never resends: a packet that
// cannot be sent is lost, and the sequence number tells the collector so.
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/wire.h"
#include "export/background.h"
#include "export/collector_group.h"
#include "export/header_clock.h"
#include "export/net.h"
#include "export/send_account.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"
#include "record/protocols.h"

namespace kestrel {
namespace {

constexpr plugin_description description = {
    "netflow-v5",
    "Netflow v5 exporter exports data to network collector using netflow v5 protocol\n"
    "Note: This export use pure netflow record and don't use getters\n"
    "Parametres are (delimited by ','):\n"
    " host=hostname (mandatory)\n"
    " port=port     (default = 3001)\n"
    " ip=ip         Protocol to connect with collector(4,6,46 or 64 - default is 46).\n"
    " source_id=id  Exporter identification.",
    0, 0};

constexpr uint32_t not_exported = 0xFFFFFFFF;
constexpr uint32_t packet_records = 30;
constexpr uint16_t sampling_mode_1 = 0x4000;
constexpr uint16_t sampling_rate_limit = 0x3FFF;  // bits left beside the mode
constexpr uint64_t clock_report_margin_ns = 5 * ns_per_second;

struct nf5_header {
    uint16_t version_be;
    uint16_t count_be;
    uint32_t sys_uptime_be;  // ms
    uint32_t unix_secs_be;
    uint32_t unix_nsecs_be;
    uint32_t flow_sequence_be;  // flows written before this packet
    uint8_t engine_type;
    uint8_t engine_id;
    uint16_t sampling_interval_be;
};
static_assert(sizeof(nf5_header) == 24);
static_assert(offsetof(nf5_header, flow_sequence_be) == 16);
static_assert(offsetof(nf5_header, sampling_interval_be) == 22);

struct nf5_record {
    uint32_t srcaddr_be;
    uint32_t dstaddr_be;
    uint32_t nexthop_be;
    uint16_t input_be;
    uint16_t output_be;
    uint32_t packets_be;
    uint32_t octets_be;
    uint32_t first_be;  // ms since start-up, the same origin as sys_uptime
    uint32_t last_be;
    uint16_t srcport_be;
    uint16_t dstport_be;
    uint8_t pad1;
    uint8_t tcp_flags;
    uint8_t protocol;
    uint8_t tos;
    uint16_t src_as_be;
    uint16_t dst_as_be;
    uint8_t src_mask;
    uint8_t dst_mask;
    uint16_t pad2;
};
static_assert(sizeof(nf5_record) == 48);
static_assert(offsetof(nf5_record, packets_be) == 16);
static_assert(offsetof(nf5_record, srcport_be) == 32);
static_assert(offsetof(nf5_record, src_as_be) == 40);

struct nf5_packet {
    nf5_header header;
    nf5_record records[packet_records];
};
static_assert(sizeof(nf5_packet) == 1464);

struct nf5_exporter {
    // Parameters
    collector to = {};
    int32_t source_id = 0;
    background_settings background = {};

    int socket = -1;
    outlet* queue = nullptr;  // of an export in the background, which has no socket
    getter src_as = {};       // copies: the table may still move
    getter dst_as = {};
    uint32_t flows = 0;          // written into packets since the start
    uint16_t last_sampling = 0;  // of the last flow written
    clock_fault_report clock_faults{clock_report_margin_ns};

    send_account account{"reason=\"ip_version\""};
    uint32_t count = 0;  // records in the packet
    header_time time = {};
    nf5_packet packet = {};
};

constexpr getter no_as_number = {
    0, "ZERO", 8, nullptr, record_valid_ok, record_length_8, record_get_zero};

getter as_getter(getter* table, const char* name) {
    const getter* found = getter_by_name(table, name);
    return found ? *found : no_as_number;
}

uint16_t sampling_interval(uint16_t rate) {
    if (rate == 0)
        return 0;
    return sampling_mode_1 | std::min(rate, sampling_rate_limit);
}

uint32_t flush(nf5_exporter& self) {
    if (self.count == 0)
        return 0;
    self.packet.header = {
        .version_be = byte_swap(uint16_t{5}),
        .count_be = byte_swap(static_cast<uint16_t>(self.count)),
        .sys_uptime_be = byte_swap(self.time.uptime_ms),
        .unix_secs_be = byte_swap(self.time.secs),
        .unix_nsecs_be = byte_swap(self.time.nsecs),
        .flow_sequence_be = byte_swap(self.flows - self.count),
        .engine_type = 0,
        .engine_id = static_cast<uint8_t>(self.source_id),
        .sampling_interval_be = byte_swap(sampling_interval(self.last_sampling)),
    };
    const size_t size = sizeof(nf5_header) + self.count * sizeof(nf5_record);
    self.count = 0;
    if (self.queue != nullptr) {
        offer_message(self.queue, self.account, &self.packet, static_cast<uint32_t>(size), 0);
        return 0;
    }
    const ssize_t result = send(self.socket, &self.packet, size, 0);
    self.account.add_message(result >= 0, size);
    return static_cast<uint32_t>(result);
}

void fill(const nf5_exporter& self, const flow_record& flow, nf5_record& slot) {
    const uint64_t startup_ns = timer_get_startup_time();
    const uint8_t protocol = flow.l4protocol;
    const bool with_ports = has_ports(protocol);
    const uint16_t type_code = protocol == protocol_icmp ? flow.icmptypecode : uint16_t{0};
    slot = {
        .srcaddr_be = byte_swap(flow.ipv4.srcipv4),
        .dstaddr_be = byte_swap(flow.ipv4.dstipv4),
        .nexthop_be = 0,
        .input_be = byte_swap(flow.inputsnmp),
        .output_be = byte_swap(flow.outputsnmp),
        .packets_be = byte_swap(flow.packets),
        .octets_be = byte_swap(flow.bytes),
        .first_be = byte_swap(static_cast<uint32_t>((flow.start - startup_ns) / ns_per_ms)),
        .last_be = byte_swap(static_cast<uint32_t>((flow.end - startup_ns) / ns_per_ms)),
        .srcport_be = with_ports ? byte_swap(flow.srcport) : uint16_t{0},
        .dstport_be = byte_swap(with_ports ? flow.dstport : type_code),
        .pad1 = 0,
        .tcp_flags = protocol == protocol_tcp ? flow.tcpflags : uint8_t{0},
        .protocol = protocol,
        .tos = flow.ipv4.tos,
        .src_as_be = 0,
        .dst_as_be = 0,
        .src_mask = 0,
        .dst_mask = 0,
        .pad2 = 0,
    };
    self.src_as.get(self.src_as.context, &flow, &slot.src_as_be, 2, 1, &self.src_as);
    self.dst_as.get(self.dst_as.context, &flow, &slot.dst_as_be, 2, 1, &self.dst_as);
}

// Whether the clock has gone back since the header's time.
bool went_back(const header_time& before, const header_time& now, uint64_t now_ns) {
    // 32-bit arithmetic that wraps: in practice the uptime alone tells. A wider product would tear
    // packets apart at every small step of the wall clock.
    const uint32_t wrapped_ns = before.secs * static_cast<uint32_t>(ns_per_second) + before.nsecs;
    return before.uptime_ms > now.uptime_ms || now_ns < wrapped_ns;
}

void connect_collector(nf5_exporter& self) {
    if (is_background(self.background)) {
        // Packets need nothing before them, and have their numbers already.
        self.queue = open_background(description.name, self.background, self.to,
                                     *make_lifelong<conversation>(), self.account);
        return;
    }
    self.socket = net_connect(self.to);
    if (self.socket <= 0)
        die(exit_config, "Can't connect to collector");
}

uint32_t export_flow(nf5_exporter& self, const flow_record& flow) {
    if (flow.l3protocol != 4) {
        self.account.add_refused(flow);
        return not_exported;
    }
    const uint64_t now_ns = timer_get_nsec();
    const header_time now = header_time_at(now_ns);
    clock_fault fault = clock_fault::none;
    if (self.count == packet_records)
        flush(self);
    else if (self.count > 0)
        fault = part_at_fault(went_back(self.time, now, now_ns), flow.end > now_ns,
                              [&self] { flush(self); });
    self.time = now;
    self.clock_faults.count(fault, now_ns);

    fill(self, flow, self.packet.records[self.count]);
    self.last_sampling = flow.sampling;
    ++self.count;
    ++self.flows;
    self.account.add_record(flow);
    if (fault == clock_fault::future_flow)
        flush(self);
    return 0;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const struct plugin_description* exporter_nf5_desc(void) {
    return &description;
}

void* exporter_nf5_init(char* params, struct getter* getters) {
    check_alone(description.name, params);
    auto* self = make_lifelong<nf5_exporter>();
    const auto background = self->background.rows();
    const config_setting settings[] = {
        {"source_id", &self->source_id, CONFIG_INTEGER},
        {"host", &self->to.host, CONFIG_STRING},
        {"port", &self->to.port, CONFIG_INTEGER},
        {"ip", &self->to.ip, CONFIG_INTEGER},
        background[0],
        background[1],
        background[2],
        {nullptr, nullptr, 0},
    };
    if (config_set_values(params, settings) != 0)
        die(exit_config, "Parameters decoding problem");
    if (!self->to.host)
        die(exit_config, "Hostname parameter is mandatory for netflow v5 export");
    connect_collector(*self);
    self->src_as = as_getter(getters, "SRC_AS");
    self->dst_as = as_getter(getters, "DST_AS");
    verbose_msg(0, "Export v5 OK");
    return self;
}

uint32_t exporter_nf5_export(void* instance, struct flow_record* record) {
    return export_flow(*static_cast<nf5_exporter*>(instance), *record);
}

uint32_t exporter_nf5_flush(void* instance) {
    return flush(*static_cast<nf5_exporter*>(instance));
}
