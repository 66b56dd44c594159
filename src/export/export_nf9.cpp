// The "netflow-v9" exporter: flows as NetFlow version 9 packets (RFC 3954) over UDP. Here stands
// what differs from IPFIX: the packet header with its two clocks, a sequence number that counts
// packets, the look at the clocks before each record, and a plain send. Record loop thread only. It
// never reconnects, save in the background: a packet that cannot be sent is lost.
#include <sys/socket.h>

#include <cstddef>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/wire.h"
#include "export/collector_group.h"
#include "export/header_clock.h"
#include "export/template_exporter.h"
#include "kestrelexp/builtin.h"

namespace kestrel {

namespace {

// RFC 3954 section 5.1
struct nf9_header {
    uint16_t version_be;
    uint16_t count_be;       // templates and records
    uint32_t sys_uptime_be;  // ms
    uint32_t unix_secs_be;
    uint32_t sequence_be;  // packets sent before this one
    uint32_t source_id_be;
};
static_assert(sizeof(nf9_header) == 20);
static_assert(offsetof(nf9_header, sequence_be) == 12);

}  // namespace

constexpr template_protocol netflow_v9_protocol = {
    .default_file = "/etc/kestrel/nf9-template.txt",
    // Times are ms since start-up, as the header's uptime is.
    .builtin_head =
        "INPUT_SNMP=INPUT_INTERFACE,OUTPUT_SNMP=OUTPUT_INTERFACE,"
        "IP_PROTOCOL_VERSION=L3_PROTO,"
        "FIRST_SWITCHED=FLOW_START_RELATIVE_MSEC,"
        "LAST_SWITCHED=FLOW_END_RELATIVE_MSEC,"
        "IN_BYTES=BYTES,IN_PKTS=PACKETS,OUT_BYTES=BYTES,OUT_PKTS=PACKETS,"
        "PROTOCOL=L4_PROTO,",
    .file_key = "template-file",
    .elements = static_field_nf9,
    .template_set_id = 0,
    .header_length = sizeof(nf9_header),
    .options = options_protocol::netflow_v9,
};

namespace {

constexpr plugin_description description = {
    "netflow-v9",
    "Netflow v9 exporter exports data to network collector using netflow v9 protocol\n"
    "Parametres are (delimited by ','):\n"
    " host=hostname                (mandatory)\n"
    " port=port                    (default = 3001)\n"
    " ip=ip                        Protocol to connect with collector(4,6,46 or 64 - default is "
    "46).\n"
    " source_id=id                 Exporter identification.\n"
    " template-file=filename       File with template parameters.\n"
    " template-refresh-time=time   Send templates to collector each 'time' seconds.\n"
    " template-refresh-packets=num Send templates to collector each 'num' packets.",
    0, 0};

// Far beyond any uptime: the message is meant for nobody but a reader of the counter.
constexpr uint64_t clock_report_margin_s = 5'000'000'000;
constexpr uint32_t report_pause_bit = 0x400;  // of the sequence number

struct nf9_exporter : template_exporter {
    header_time time = {};
    uint16_t last_count = 0;  // in the header of the packet before; 0 = there was none
    uint32_t sequence = 0;
    clock_fault_report clock_faults{clock_report_margin_s};
};

// What the worker of an export in the background adds to the packets: the templates, in a packet of
// their own, and options records. Such packets count, so the worker gives each packet its number
// when it is sent: that of the record loop, which also counts those that were dropped, and the
// worker's own packets before.
class nf9_conversation final : public conversation {
  public:
    explicit nf9_conversation(const nf9_exporter& exporter) : exporter_(exporter) {}

    uint32_t greeting(uint8_t* packet) override;
    void note_greeting() override;
    void prepare(outlet_message& message) override {
        store_native(static_cast<uint8_t*>(message.data) + offsetof(nf9_header, sequence_be),
                     byte_swap(static_cast<uint32_t>(message.number) + own_));
    }
    void note_sent(const outlet_message& message) override {
        next_ = static_cast<uint32_t>(message.number) + 1;
    }
    uint32_t own_message(uint64_t now_ns, uint8_t* packet) override;
    void note_own_end(uint32_t length, bool is_sent) override;
    uint64_t next_own_ns(uint64_t now_ns) override;

  private:
    const nf9_exporter& exporter_;
    uint32_t next_ = 0;  // after the packet that was sent last
    uint32_t own_ = 0;   // packets that have reached a collector, as far as can be told
};

void write_header(const nf9_exporter& self, uint8_t* packet, const header_time& time,
                  uint16_t count, uint32_t sequence) {
    const nf9_header header = {
        .version_be = byte_swap(uint16_t{9}),
        .count_be = byte_swap(count),
        .sys_uptime_be = byte_swap(time.uptime_ms),
        .unix_secs_be = byte_swap(time.secs),
        .sequence_be = byte_swap(sequence),
        .source_id_be = byte_swap(static_cast<uint32_t>(self.source_id)),
    };
    store_native(packet, header);
}

uint32_t nf9_conversation::greeting(uint8_t* packet) {
    uint32_t length;
    const uint32_t count = write_greeting(exporter_, packet + sizeof(nf9_header), length);
    write_header(exporter_, packet, header_time_at(timer_get_nsec()), static_cast<uint16_t>(count),
                 next_ + own_);
    return length + sizeof(nf9_header);
}

void nf9_conversation::note_greeting() {
    ++own_;
    if (exporter_.options != nullptr)
        exporter_.options->note_connection();
}

// Fills in a packet of options records, if one is due; returns its bytes.
uint32_t make_options_packet(const nf9_exporter& self, uint64_t now_ns, uint8_t* packet,
                             uint32_t sequence) {
    const options_records::message made =
        self.options->next(now_ns, {packet + sizeof(nf9_header), TEMPLATE_SETS_SIZE});
    if (made.length == 0)
        return 0;
    write_header(self, packet, header_time_at(timer_get_nsec()),
                 static_cast<uint16_t>(made.templates + made.records), sequence);
    return made.length + static_cast<uint32_t>(sizeof(nf9_header));
}

uint32_t nf9_conversation::own_message(uint64_t now_ns, uint8_t* packet) {
    if (exporter_.options == nullptr)
        return 0;
    return make_options_packet(exporter_, now_ns, packet, next_ + own_);
}

void nf9_conversation::note_own_end(uint32_t length, bool is_sent) {
    own_ += is_sent ? 1 : 0;
    exporter_.options->count(length, is_sent);
}

uint64_t nf9_conversation::next_own_ns(uint64_t now_ns) {
    return exporter_.options != nullptr ? exporter_.options->next_look_ns(now_ns) : UINT64_MAX;
}

// Returns whether the packet has left, or waits to leave.
bool send_packet(nf9_exporter& self, uint32_t length) {
    if (self.queue != nullptr) {
        offer_message(self.queue, self.account, self.packet, length, self.sequence);
        return true;
    }
    const bool sent = send(self.socket, self.packet, length, 0) >= 0;
    self.account.add_message(sent, length);
    return sent;
}

// Only records are pending here: a template set waits for the next record.
uint32_t flush(nf9_exporter& self) {
    const uint64_t now_s = timer_get_sec();
    if (self.pending == 0) {
        verbose_msg(4, "Nothing to export");
        return 0;
    }
    const uint32_t length = close_packet(self);
    self.last_count = static_cast<uint16_t>(self.cursor.count);
    write_header(self, self.packet, self.time, self.last_count, self.sequence);
    const bool sent = send_packet(self, length);
    if (sent)
        ++self.sequence;
    start_packet(self);
    refresh_templates(self, now_s);
    if ((self.sequence & report_pause_bit) == 0)
        verbose_msg(4, "EXPORTER_SENT_PACKETS: %u", self.sequence);
    return sent ? 0 : not_exported;
}

// What waits is sent first: records, and the templates at the start.
void send_options(nf9_exporter& self, uint64_t now_ns) {
    if (self.time.secs == 0)
        self.time = header_time_at(timer_get_nsec());  // there was no record yet
    if (self.pending > 0)
        flush(self);
    uint8_t packet[sizeof(nf9_header) + TEMPLATE_SETS_SIZE];
    const uint32_t length = make_options_packet(self, now_ns, packet, self.sequence);
    const bool sent = send(self.socket, packet, length, 0) >= 0;
    self.options->count(length, sent);
    if (sent)
        ++self.sequence;
}

int32_t tend(nf9_exporter& self) {
    const uint64_t now_ns = timer_get_uptime();
    if (has_options_here(self) && self.options->is_due(now_ns))
        send_options(self, now_ns);
    return options_pause_ms(self, now_ns);
}

// Whether the clock has gone back since the header's time.
bool went_back(const header_time& before, const header_time& now, uint64_t now_s) {
    return now_s < before.secs || now.uptime_ms < before.uptime_ms;
}

uint32_t export_flow(nf9_exporter& self, const flow_record* record) {
    const uint64_t now_ns = timer_get_nsec();
    const uint64_t now_s = now_ns / ns_per_second;
    const header_time now = header_time_at(now_ns);
    // A flow that ends later leaves in a packet of its own whether or not records are pending.
    const clock_fault fault = part_at_fault(self.pending > 0 && went_back(self.time, now, now_s),
                                            record->end > now_ns, [&self] { flush(self); });
    int32_t index;
    const uint32_t length = exporter_template_find(self.templates, record, &index);
    if (is_full(self, length))
        flush(self);
    if (record->sampling != self.last_sampling && self.last_count != 0) {
        flush(self);
        self.last_sampling = record->sampling;
    }
    self.time = now;
    self.clock_faults.count(fault, now_s);
    if (index < 0) {
        self.account.add_refused(*record);
        return not_exported;
    }
    add_record(self, record, index);
    if (fault == clock_fault::future_flow)
        flush(self);
    return 0;
}

void* init_one(char* params, getter* getters) {
    auto* self = make_lifelong<nf9_exporter>(template_exporter{.protocol = &netflow_v9_protocol});
    read_parameters(*self, params, {});
    load_templates(*self, getters);
    prepare_options(*self);
    connect_collector(*self, description.name, *make_lifelong<nf9_conversation>(*self));
    open_packet(*self);
    verbose_msg(0, "Export v9 OK");
    return self;
}

constexpr collector_kind kind = {
    description.name,
    init_one,
    [](void* one, flow_record* record) {
        return export_flow(*static_cast<nf9_exporter*>(one), record);
    },
    [](void* one) { return flush(*static_cast<nf9_exporter*>(one)); },
    [](void* one) { return tend(*static_cast<nf9_exporter*>(one)); },
    [](const void* one) { return static_cast<const nf9_exporter*>(one)->account.is_up(); },
};

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const struct plugin_description* exporter_nf9_desc(void) {
    return &description;
}

void* exporter_nf9_init(char* params, struct getter* getters) {
    return open_collectors(kind, params, getters);
}

uint32_t exporter_nf9_export(void* instance, struct flow_record* record) {
    return static_cast<const collector_group*>(instance)->export_record(record);
}

uint32_t exporter_nf9_flush(void* instance) {
    return static_cast<const collector_group*>(instance)->flush();
}

int32_t exporter_nf9_tend(void* instance) {
    return static_cast<const collector_group*>(instance)->tend();
}
