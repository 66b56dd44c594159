// The "kafka" export: each flow a message in a topic. The record loop encodes and offers to an
// outlet; its worker hands over to librdkafka and settles each message with its delivery report.

#include <kestrelexp/outlet.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "flow_message.h"
#include "message_key.h"
#include "producer.h"
#include "properties.h"
#include "settings.h"

namespace kafka {
namespace {

constexpr plugin_description description{
    "kafka",
    "Kafka exporter, writes each flow into a topic as a message.\n"
    "Parameters (delimited by ','):\n"
    " brokers=host:port#host:port\n"
    " topic=name (default: flows)\n"
    " format=protobuf (default: protobuf)\n"
    " key=none|exporter|flow (default: none)\n"
    " config=file with properties of librdkafka\n"
    " sampler=IP_address of this probe in the flows (default: the machine's)\n"
    " queue=KiB (default: 16384)\n"
    " drain=seconds at the end (default: 10)",
    0, PLUGIN_WHOLE_PARAMS};  // brokers have ports

struct exporter {
    exporter(const settings& wanted, conf_pointer conf, const getter* getters)
        : key(wanted.key),
          sampler(wanted.sampler),
          message(getters, sampler),
          sender(std::move(conf), wanted.topic) {}

    const message_key key;
    const sampler_address sampler;
    const flow_message message;
    producer sender;
    outlet* queue = nullptr;
    uint32_t number = 0;  // of the next record
};

int32_t tend(void* context, outlet* queue, int32_t, outlet_wait* wait) {
    return static_cast<producer*>(context)->tend(queue, *wait) ? 1 : 0;
}

int32_t deliver(void* context, outlet*, outlet_message* message) {
    return static_cast<producer*>(context)->deliver(*message);
}

void end(void* context, outlet* queue) {
    static_cast<producer*>(context)->end(queue);
}

size_t put_key(const exporter& self, const flow_record& record, uint8_t* to) {
    switch (self.key) {
        case message_key::flow:
            return write_flow_key(record, to);
        case message_key::exporter:
            std::ranges::copy(self.sampler.text, to);
            return self.sampler.text.size();
        default:
            return 0;
    }
}

exporter* start(char* params, const getter* getters, std::string& fault) {
    settings wanted;
    if (!read_settings(params, wanted, fault))
        return nullptr;
    conf_pointer conf = make_configuration(wanted, fault);
    if (!conf)
        return nullptr;
    auto* const self = new exporter(wanted, std::move(conf), getters);  // for the whole run
    if (!self->sender.open(fault))
        return nullptr;  // and the program ends
    const outlet_owner owner = {&self->sender, tend, deliver, end};
    self->queue = outlet_open(&owner, wanted.queue_bytes, wanted.drain_s);
    return self;
}

}  // namespace
}  // namespace kafka

using namespace kafka;

int32_t plugin_type = PLUGIN_KIND_EXPORT;
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;

const plugin_description* plugin_export_desc(void) {
    return &description;
}

void* plugin_export_init(char* params, getter* getters) {
    std::string fault;
    exporter* const self = start(params, getters, fault);
    if (self == nullptr)
        verbose_msg(-1, "kafka: %s", fault.c_str());
    return self;
}

uint32_t plugin_export_export(void* instance, flow_record* record) {
    exporter& self = *static_cast<exporter*>(instance);
    constexpr size_t longest_key = std::max<size_t>(longest_flow_key, INET6_ADDRSTRLEN);
    uint8_t bytes[longest_key + flow_message::longest];
    const size_t key_length = put_key(self, *record, bytes);
    const size_t length =
        self.message.write(*record, timer_get_nsec(), self.number++, bytes + key_length);
    const outlet_message message = {
        bytes, static_cast<uint32_t>(key_length + length), 1, record->packets, key_length, 0};
    // What does not fit is counted there.
    return outlet_offer(self.queue, &message) != 0 ? 0 : UINT32_MAX;
}

// Messages go off by themselves: nothing is kept back here.
uint32_t plugin_export_flush(void*) {
    return 0;
}
