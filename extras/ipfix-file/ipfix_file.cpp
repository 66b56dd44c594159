// The "ipfix-file" export: flows as IPFIX files (RFC 5655). The record loop makes whole messages;
// the worker of an outlet writes them, so that a slow or full disk holds nothing up. In a replay
// the record loop waits for the disk instead, since nothing is lost by that.
#include <kestrelexp/outlet.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <poll.h>

#include <new>

#include "file_account.h"
#include "message_builder.h"
#include "settings.h"
#include "writer.h"

namespace ipfix_file {
namespace {

constexpr plugin_description description{
    "ipfix-file",
    "IPFIX file exporter, writes flows into files that IPFIX tools read.\n"
    "Parameters (delimited by ','):\n"
    " file=path (mandatory; its name may have fields of strftime(3), in UTC)\n"
    " rotate-time=seconds (a new file at each multiple; default: never)\n"
    " rotate-size=MiB (a new file before one is larger; default: never)\n"
    " template-file=path (default: /etc/kestrel/ipfix-template.txt)\n"
    " source_id=number (observation domain, default: 0)\n"
    " queue=MiB (for what waits for the disk, default: 16)\n"
    " drain=seconds (for writing it at the end, default: 10)",
    0, PLUGIN_WHOLE_PARAMS};  // names of files hold ':'

constexpr uint32_t not_exported = 0xFFFFFFFF;

struct exporter {
    settings wanted;
    message_builder messages;
    file_account account;
    writer* files = nullptr;
    outlet* queue = nullptr;
};

moment now() {
    timespec uptime = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &uptime);  // it has this clock
    return {static_cast<uint64_t>(uptime.tv_sec) * ns_per_second +
                static_cast<uint64_t>(uptime.tv_nsec),
            timer_get_sec(), timer_is_replay() != 0};
}

int32_t tend(void* context, outlet* queue, int32_t is_closing, outlet_wait* wait) {
    return static_cast<writer*>(context)->tend(queue, is_closing != 0, now(), *wait) ? 1 : 0;
}

int32_t deliver(void* context, outlet* queue, outlet_message* message) {
    return static_cast<writer*>(context)->deliver(queue, *message);
}

void end(void* context, outlet* queue) {
    static_cast<writer*>(context)->end(queue, now());
}

// Whether the queue takes a message for certain, wherever in the ring it comes to lie.
bool has_room(const exporter& self, const outlet_message& message) {
    constexpr uint64_t beside = 56;  // bytes of the ring that a message takes beside its own
    outlet_counts counts;
    outlet_read_counts(self.queue, &counts);
    const uint64_t used = counts.queued.bytes + counts.queued.messages * beside;
    return used + message.length + beside <= self.wanted.queue_bytes / 2;
}

void wait_for_room(const exporter& self, const outlet_message& message) {
    while (!has_room(self, message) && !self.files->is_failing())
        (void)poll(nullptr, 0, 1);  // ms; a signal ends it early, and does no harm
}

void send(exporter& self) {
    const outlet_message message = self.messages.close(timer_get_sec());
    if (timer_is_replay() != 0)
        wait_for_room(self, message);
    (void)outlet_offer(self.queue, &message);  // what does not fit is counted there
}

uint32_t export_flow(exporter& self, const flow_record& record) {
    int32_t index;
    const uint32_t length = self.messages.find(record, index);
    if (index < 0) {
        self.account.add_refused(record);
        return not_exported;
    }
    if (!self.messages.is_empty() && !self.messages.has_room(length))
        send(self);
    self.messages.add(record, index);
    return 0;
}

exporter* start(char* params, getter* getters) {
    // Lives as long as the program. Without memory the program ends.
    auto* const self = new exporter;
    if (!read_settings(params, self->wanted) ||
        !self->messages.load(self->wanted.template_file.c_str(), self->wanted.source_id, getters))
        return nullptr;
    self->files = new writer(self->wanted, self->messages.opening(), self->account);
    const outlet_owner owner = {self->files, tend, deliver, end};
    self->queue = outlet_open(&owner, self->wanted.queue_bytes, self->wanted.drain_s);
    return self;
}

}  // namespace
}  // namespace ipfix_file

using namespace ipfix_file;

int32_t plugin_type = PLUGIN_KIND_EXPORT;
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;

const plugin_description* plugin_export_desc(void) {
    return &description;
}

void* plugin_export_init(char* params, getter* getters) {
    return start(params, getters);
}

uint32_t plugin_export_export(void* instance, flow_record* record) {
    return export_flow(*static_cast<exporter*>(instance), *record);
}

uint32_t plugin_export_flush(void* instance) {
    auto& self = *static_cast<exporter*>(instance);
    if (!self.messages.is_empty())
        send(self);
    return 0;
}
