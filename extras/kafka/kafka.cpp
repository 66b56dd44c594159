// The "kafka" export: each flow a message in a topic. The record loop encodes and offers to an
// outlet; its worker hands over to librdkafka and settles each message with its delivery report.

#include <kestrelexp/outlet.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "../flow-encoding/flow_encoding.h"
#include "../flow-encoding/patient_queue.h"
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
    " format=json|protobuf (default: json)\n"
    " style=goflow2|ecs (of JSON, default: goflow2)\n"
    " fields=name#name... (of JSON, default: all that the style names)\n"
    " seed=number (of the Community ID, default: 0)\n"
    " key=none|exporter|flow (default: none)\n"
    " config=file with properties of librdkafka\n"
    " sampler=IP_address of this probe in the flows (default: the machine's)\n"
    " queue=KiB (default: 16384)\n"
    " drain=seconds at the end (default: 10)",
    0, PLUGIN_WHOLE_PARAMS};  // brokers have ports

constexpr size_t longest_key = std::max<size_t>(longest_flow_key, INET6_ADDRSTRLEN);

struct exporter {
    exporter(const settings& wanted, conf_pointer conf, const getter* getters)
        : key(wanted.key),
          sampler(wanted.sampler),
          protobuf(getters, sampler),
          sender(std::move(conf), wanted.topic) {}

    const message_key key;
    const sampler_address sampler;
    const flow_message protobuf;
    flow_encoding::json_encoder* json = nullptr;  // null: messages are protocol buffers
    std::vector<uint8_t> message;                 // room for the longest, with its key
    producer sender;
    flow_encoding::patient_queue queue;
    uint32_t number = 0;  // of the next record
};

int32_t tend(void* context, outlet* queue, int32_t is_closing, outlet_wait* wait) {
    return static_cast<producer*>(context)->tend(queue, is_closing != 0, *wait) ? 1 : 0;
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

// Returns the bytes of the message.
size_t put_message(exporter& self, const flow_record& record, uint8_t* to) {
    const uint64_t now_ns = timer_get_nsec();
    const uint32_t number = self.number++;
    return self.json != nullptr ? self.json->encode(record, now_ns, reinterpret_cast<char*>(to))
                                : self.protobuf.write(record, now_ns, number, to);
}

bool open_encoder(const settings& wanted, const getter* getters, exporter& self,
                  std::string& fault) {
    size_t longest = flow_message::longest;
    if (wanted.format == message_format::json) {
        self.json = flow_encoding::json_encoder::open(wanted.json, getters, fault);
        if (self.json == nullptr)
            return false;
        longest = self.json->longest();
    }
    self.message.resize(longest_key + longest);
    return true;
}

exporter* start(char* params, const getter* getters, std::string& fault) {
    settings wanted;
    if (!read_settings(params, wanted, fault))
        return nullptr;
    conf_pointer conf = make_configuration(wanted, fault);
    if (!conf)
        return nullptr;
    auto* const self = new exporter(wanted, std::move(conf), getters);  // for the whole run
    if (!open_encoder(wanted, getters, *self, fault) || !self->sender.open(fault))
        return nullptr;  // and the program ends
    const outlet_owner owner = {&self->sender, tend, deliver, end};
    self->queue.open(owner, wanted.queue_bytes, wanted.drain_s);
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
    uint8_t* const bytes = self.message.data();
    const size_t key_length = put_key(self, *record, bytes);
    const size_t length = put_message(self, *record, bytes + key_length);
    const outlet_message message = {
        bytes, static_cast<uint32_t>(key_length + length), 1, record->packets, key_length, 0};
    // What does not fit is counted there.
    return self.queue.offer(message) ? 0 : UINT32_MAX;
}

// Messages go off by themselves: nothing is kept back here.
uint32_t plugin_export_flush(void*) {
    return 0;
}
