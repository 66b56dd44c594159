// The "ipfix" exporter: flows as IPFIX messages (RFC 7011) over UDP, TCP or SCTP. Here stands what
// differs from NetFlow v9: the message header, a sequence number that counts records, the choice of
// a transport, and a connection that is made again when it breaks. Record loop thread only. A
// message that cannot be sent is lost.
#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/message_limit.h"
#include "base/wire.h"
#include "export/collector_group.h"
#include "export/template_exporter.h"
#include "kestrelexp/builtin.h"

namespace kestrel {

namespace {

// RFC 7011 section 3.1
struct ipfix_header {
    uint16_t version_be;
    uint16_t length_be;       // of the message, header included
    uint32_t export_time_be;  // s
    uint32_t sequence_be;     // data records before this message
    uint32_t observation_domain_be;
};
static_assert(sizeof(ipfix_header) == 16);
static_assert(offsetof(ipfix_header, sequence_be) == 8);

}  // namespace

constexpr template_protocol ipfix_protocol = {
    .default_file = "/etc/kestrel/ipfix-template.txt",
    // Two elements are misspelled, so these definitions end in "Bad field". Kept: who has no
    // template file is told so rather than served with templates of nobody's choosing.
    .builtin_head =
        "INPUT_SNMP=INPUT_INTERFACE,OUTPUT_SNMP=OUTPUT_INTERFACE,"
        "IP_PROTOCOL_VERSION=L3_PROTO,"
        "FLOW_START_MSEC_MILLISECINDS=FLOW_START_MSEC,"
        "FLOW_END_MSEC_MILLISECINDS=FLOW_END_MSEC,"
        "IN_BYTES=BYTES,IN_PKTS=PACKETS,OUT_BYTES=BYTES,OUT_PKTS=PACKETS,"
        "PROTOCOL=L4_PROTO,",
    .file_key = "template_file",
    .elements = static_field_ipfix,
    .template_set_id = 2,
    .header_length = sizeof(ipfix_header),
    .options = options_protocol::ipfix,
};

namespace {

constexpr plugin_description description = {
    "ipfix",
    "IPFIX exporter exports data to network collector using IPFIX protocol\n"
    "Parametres are (delimited by ','):\n"
    " host=hostname                (mandatory)\n"
    " port=port                    (default = 3001)\n"
    " ip=ip                        Protocol to connect with collector(4,6,46 or 64 - default is "
    "46).\n"
    " protocol=proto               Protocol used to connect to collector - udp(default),tcp,sctp.\n"
    " source_id=id                 Exporter identification.\n"
    " template-file=filename       File with template parameters.\n"
    " template-refresh-time=time   Send templates to collector each 'time' seconds.\n"
    " template-refresh-packets=num Send templates to collector each 'num' packets.",
    0, 0};

struct transport {
    const char* name;
    size_t length;  // characters that are compared
    uint8_t protocol;
};
constexpr transport transports[] = {{"udp", 3, 17}, {"tcp", 3, 6}, {"sctp", 4, 132}};

struct ipfix_exporter;

// What the worker of an export in the background adds to the messages: the templates, in a message
// of their own, and options records. Template records do not count, so a message of them has the
// sequence number of the next one. Options records do: they are added to the number that the
// record loop has given a message.
class ipfix_conversation final : public conversation {
  public:
    explicit ipfix_conversation(const ipfix_exporter& exporter) : exporter_(exporter) {}

    uint32_t greeting(uint8_t* message) override;
    void note_greeting() override;
    void prepare(outlet_message& message) override {
        store_native(static_cast<uint8_t*>(message.data) + offsetof(ipfix_header, sequence_be),
                     byte_swap(static_cast<uint32_t>(message.number) + options_count_));
    }
    void note_sent(const outlet_message& message) override {
        sequence_ = static_cast<uint32_t>(message.number) + message.records;
    }
    uint32_t own_message(uint64_t now_ns, uint8_t* message) override;
    void note_own_end(uint32_t length, bool is_sent) override;
    uint64_t next_own_ns(uint64_t now_ns) override;

  private:
    const ipfix_exporter& exporter_;
    uint32_t sequence_ = 0;       // of flow records, after the message that was sent last
    uint32_t options_count_ = 0;  // options records so far
    uint32_t last_options_ = 0;   // of these, in the message that was made last
};

struct ipfix_exporter : template_exporter {
    char* transport_name = nullptr;
    uint32_t sequence = 0;       // of the next message
    uint32_t options_count = 0;  // options records sent on this thread
    uint64_t unsent = 0;         // records lost since the collector was given up, not yet reported
    message_limit connected_again = {};
    bool is_connection_new = false;  // and waits for options records
};

constexpr uint64_t messages_per_report = 1000;
uint64_t messages_sent = 0;  // by all instances; they share a thread

uint8_t transport_protocol(const char* name) {
    for (const transport& row : transports) {
        if (strncasecmp(name, row.name, row.length) == 0)
            return row.protocol;
    }
    die(exit_config, "Unsupported protocol: %s", name);
}

void count_message() {
    if (messages_sent++ % messages_per_report == 0)
        verbose_msg(4, "EXPORTER_SENT_PACKETS: %14lu", messages_sent);
}

void write_header(const ipfix_exporter& self, uint8_t* message, uint64_t now_s, uint32_t length,
                  uint32_t sequence) {
    const ipfix_header header = {
        .version_be = byte_swap(uint16_t{10}),
        .length_be = byte_swap(static_cast<uint16_t>(length)),
        .export_time_be = byte_swap(static_cast<uint32_t>(now_s)),
        .sequence_be = byte_swap(sequence),
        .observation_domain_be = byte_swap(static_cast<uint32_t>(self.source_id)),
    };
    store_native(message, header);
}

uint32_t ipfix_conversation::greeting(uint8_t* message) {
    uint32_t length;
    (void)write_greeting(exporter_, message + sizeof(ipfix_header), length);
    length += sizeof(ipfix_header);
    write_header(exporter_, message, timer_get_sec(), length, sequence_ + options_count_);
    return length;
}

void ipfix_conversation::note_greeting() {
    if (exporter_.options != nullptr)
        exporter_.options->note_connection();
}

uint32_t ipfix_conversation::own_message(uint64_t now_ns, uint8_t* message) {
    if (exporter_.options == nullptr)
        return 0;
    const options_records::message made =
        exporter_.options->next(now_ns, {message + sizeof(ipfix_header), TEMPLATE_SETS_SIZE});
    if (made.length == 0)
        return 0;
    const uint32_t length = made.length + static_cast<uint32_t>(sizeof(ipfix_header));
    write_header(exporter_, message, timer_get_sec(), length, sequence_ + options_count_);
    last_options_ = made.records;
    return length;
}

void ipfix_conversation::note_own_end(uint32_t length, bool is_sent) {
    options_count_ += last_options_;
    exporter_.options->count(length, is_sent);
}

uint64_t ipfix_conversation::next_own_ns(uint64_t now_ns) {
    return exporter_.options != nullptr ? exporter_.options->next_look_ns(now_ns) : UINT64_MAX;
}

bool is_connected(const ipfix_exporter& self) {
    return self.socket > 0;
}

// A collector that takes connections and closes them is there each time that it is looked for, so
// nothing else would tell of it. The system's own uptime: a replay's clock runs ahead of whoever
// reads this.
void say_connected_again(ipfix_exporter& self, int error) {
    if (const uint64_t times = self.connected_again.count(system_uptime_ns()); times > 0)
        verbose_msg(0,
                    "Export ipfix to %s port %d: sending failed (%s), connected again (%lu times)",
                    self.to.host, self.to.port, std::strerror(error), times);
}

uint32_t records_before_next(const ipfix_exporter& self) {
    return self.templates->records_added + self.options_count;
}

// After a message that could not be sent for this error, with so many flow records. Once the
// program was asked to stop and the collector is not there, it is given up: that message and all
// later ones are lost.
void reconnect(ipfix_exporter& self, int error, uint32_t lost) {
    if (is_connected(self))
        self.socket = net_reconnect(self.to, self.socket);
    if (is_connected(self)) {
        self.account.add_reconnect();
        say_connected_again(self, error);
        self.is_connection_new = has_options_here(self);
        if (self.is_connection_new)
            self.options->note_connection();
    } else {
        self.unsent += lost;
    }
}

void report_unsent(ipfix_exporter& self) {
    if (self.unsent == 0)
        return;
    verbose_msg(-1, "Reconnect to collector interrupted, %lu records lost", self.unsent);
    self.unsent = 0;
}

// Blocks until the whole message has left, or returns false with errno. A collector that is there
// and does not read is not up meanwhile.
bool send_message(const ipfix_exporter& self, const uint8_t* message, uint32_t length) {
    constexpr int patience_ms = 1000;
    ssize_t sent = send(self.socket, message, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent == static_cast<ssize_t>(length))
        return true;
    if (sent < 0 && errno != EAGAIN)
        return false;
    sent = sent < 0 ? 0 : sent;
    if (!net_wait_for_room(self.socket, patience_ms))
        self.account.note_stall();
    const auto left = static_cast<uint32_t>(length - sent);
    return net_send(self.socket, message + sent, left, MSG_NOSIGNAL) >= 0;
}

// The end of a message that was sent, or was not for this error.
void note_message(ipfix_exporter& self, uint64_t now_s, uint32_t length, bool sent, int error) {
    self.account.add_message(sent, length);
    start_packet(self);
    if (sent)
        return;
    reconnect(self, error, records_before_next(self) - self.sequence);
    // The collector of the new connection may know no template yet.
    self.pending += restart_templates(self, now_s);
}

// What is pending are records and templates: a template set waits for the next record or flush,
// whichever comes first. Only the first one waits for a record.
uint32_t flush(ipfix_exporter& self) {
    const uint64_t now_s = timer_get_sec();
    if (self.pending == 0) {
        verbose_msg(4, "Nothing to export");
        return 0;
    }
    const uint32_t length = close_packet(self);
    write_header(self, self.packet, now_s, length, self.sequence);
    if (self.queue != nullptr) {
        offer_message(self.queue, self.account, self.packet, length, self.sequence);
        start_packet(self);
    } else {
        const bool sent = is_connected(self) && send_message(self, self.packet, length);
        note_message(self, now_s, length, sent, errno);  // of the send, when it failed
    }
    self.pending += refresh_templates(self, now_s);
    count_message();
    self.sequence = records_before_next(self);
    return 0;
}

// What waits is sent first, the templates of a new connection among it: once for what a broken one
// loses, and once more for them.
void send_options(ipfix_exporter& self, uint64_t now_ns) {
    for (int n = 0; n < 2 && self.pending > 0; ++n)
        flush(self);
    uint8_t message[sizeof(ipfix_header) + TEMPLATE_SETS_SIZE];
    const options_records::message made =
        self.options->next(now_ns, {message + sizeof(ipfix_header), TEMPLATE_SETS_SIZE});
    if (made.length == 0)
        return;  // a connection has just broken, and it is too soon after the one before
    const uint32_t length = made.length + static_cast<uint32_t>(sizeof(ipfix_header));
    const uint64_t now_s = timer_get_sec();
    write_header(self, message, now_s, length, self.sequence);
    self.options_count += made.records;
    self.sequence = records_before_next(self);
    const bool sent = is_connected(self) && send_message(self, message, length);
    const int error = errno;  // of the send, when it failed
    self.options->count(length, sent);
    if (sent)
        return;
    reconnect(self, error, 0);
    self.pending += restart_templates(self, now_s);
}

// With the options records of a new connection before anything else.
uint32_t flush_and_tell(ipfix_exporter& self) {
    const uint32_t result = flush(self);
    if (std::exchange(self.is_connection_new, false)) [[unlikely]]
        send_options(self, timer_get_uptime());
    return result;
}

int32_t tend(ipfix_exporter& self) {
    const uint64_t now_ns = timer_get_uptime();
    if (has_options_here(self) && self.options->is_due(now_ns))
        send_options(self, now_ns);
    return options_pause_ms(self, now_ns);
}

uint32_t export_flow(ipfix_exporter& self, const flow_record* record) {
    int32_t index;
    const uint32_t length = exporter_template_find(self.templates, record, &index);
    if (is_full(self, length))
        flush_and_tell(self);
    // The first record never changes the rate, since nothing was measured yet: see decisions.md.
    if (record->sampling != self.last_sampling && self.data_size > 0) {
        flush_and_tell(self);
        self.last_sampling = record->sampling;
    }
    if (index < 0) {
        self.account.add_refused(*record);
        return not_exported;
    }
    add_record(self, record, index);
    return 0;
}

void* init_one(char* params, getter* getters) {
    auto* self = make_lifelong<ipfix_exporter>(template_exporter{.protocol = &ipfix_protocol});
    read_parameters(*self, params, {{"protocol", &self->transport_name, CONFIG_STRING}});
    if (self->transport_name)
        self->to.protocol = transport_protocol(self->transport_name);
    load_templates(*self, getters);
    prepare_options(*self);
    connect_collector(*self, description.name, *make_lifelong<ipfix_conversation>(*self));
    open_packet(*self);
    verbose_msg(0, "Export ipfix OK");
    return self;
}

constexpr collector_kind kind = {
    description.name,
    init_one,
    [](void* one, flow_record* record) {
        return export_flow(*static_cast<ipfix_exporter*>(one), record);
    },
    [](void* one) {
        auto& self = *static_cast<ipfix_exporter*>(one);
        const uint32_t result = flush_and_tell(self);
        report_unsent(self);  // here and not with each message: the last flush of a run comes here
        return result;
    },
    [](void* one) { return tend(*static_cast<ipfix_exporter*>(one)); },
    [](const void* one) { return static_cast<const ipfix_exporter*>(one)->account.is_up(); },
};

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const struct plugin_description* exporter_ipfix_desc(void) {
    return &description;
}

void* exporter_ipfix_init(char* params, struct getter* getters) {
    return open_collectors(kind, params, getters);
}

uint32_t exporter_ipfix_export(void* instance, struct flow_record* record) {
    return static_cast<const collector_group*>(instance)->export_record(record);
}

uint32_t exporter_ipfix_flush(void* instance) {
    return static_cast<const collector_group*>(instance)->flush();
}

int32_t exporter_ipfix_tend(void* instance) {
    return static_cast<const collector_group*>(instance)->tend();
}
