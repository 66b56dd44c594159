// The "json" export: flows as JSON, one object a line, into files or to whoever reads a pipe or
// socket. The record loop's thread makes the lines and gathers them; the worker of an outlet writes
// them, so whatever holds it up never holds up the record loop.
#include <kestrelexp/outlet.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "../flow-encoding/flow_encoding.h"
#include "../flow-encoding/patient_queue.h"
#include "account.h"
#include "file_output.h"
#include "settings.h"
#include "stream_output.h"

namespace json_export {
namespace {

constexpr plugin_description description{
    "json",
    "JSON exporter, writes one object a line.\n"
    "Parameters (delimited by ','):\n"
    " file=path (- for standard output; strftime conversions in UTC)\n"
    " socket=path (of a unix stream socket)\n"
    " style=goflow2|ecs (default: goflow2)\n"
    " fields=name#name... (default: all that the style names)\n"
    " seed=number (of the Community ID, default: 0)\n"
    " sampler=IP_address (of this probe, default: the machine's)\n"
    " rotate-time=seconds\n"
    " rotate-size=KiB\n"
    " compress=gzip|zstd\n"
    " queue=MiB (default: 16)\n"
    " drain=seconds (default: 10)",
    0, PLUGIN_WHOLE_PARAMS};  // IPv6 addresses and times hold ':'

constexpr size_t file_message_bytes = size_t{64} * 1024;
constexpr size_t packed_message_bytes = size_t{256} * 1024;  // more in a member packs better
constexpr uint64_t ns_per_second = 1'000'000'000;
// Lines wait for others for this long.
constexpr uint64_t gathering_ns = ns_per_second;

struct exporter {
    flow_encoding::json_encoder* encoder = nullptr;
    flow_encoding::patient_queue queue;
    std::string lines;         // room for a message and one line more
    size_t message_bytes = 0;  // what a message has at most, save one of a single line
    size_t used = 0;           // bytes of the lines that are gathered
    uint32_t records = 0;      // in them
    uint64_t packets = 0;      // in these records
    uint64_t first_ns = 0;     // when the first of them came
    uint64_t offered_ns = 0;
    uint64_t period_ns = 0;  // of files that are made by time; 0: of none
};

size_t most_message_bytes(const settings& wanted) {
    if (wanted.output != output_kind::file)
        return stream_output::whole_message(wanted.output);
    return wanted.file.packing == compression::none ? file_message_bytes : packed_message_bytes;
}

// A message goes into one file as a whole, so it is not longer than a file may be.
size_t message_bytes(const settings& wanted) {
    const uint64_t file_bytes = wanted.file.rotate_bytes;
    const size_t most = most_message_bytes(wanted);
    return file_bytes == 0 ? most : std::min<size_t>(most, file_bytes);
}

// All lives as long as the program.
outlet_owner open_output(const settings& wanted) {
    auto* const account = new output_account();
    if (wanted.output == output_kind::file)
        return (new file_output(wanted.file, *account))->owner();
    const bool is_standard = wanted.output == output_kind::standard;
    return (new stream_output(wanted.output, is_standard ? "standard output" : wanted.path,
                              *account))
        ->owner();
}

exporter* start(char* params, const getter* getters) {
    settings wanted;
    if (!read_settings(params, wanted))
        return nullptr;
    auto* const self = new exporter();
    std::string fault;
    self->encoder = flow_encoding::json_encoder::open(wanted.encoding, getters, fault);
    if (self->encoder == nullptr) {
        verbose_msg(-1, "json: %s", fault.c_str());
        return nullptr;  // and the program ends
    }
    self->message_bytes = message_bytes(wanted);
    self->period_ns = wanted.file.rotate_s * ns_per_second;
    const size_t longest_line = self->encoder->longest() + 1;
    // What a run with other parameters tore may be longer than messages of this one.
    wanted.file.longest_message = std::max(most_message_bytes(wanted), longest_line);
    self->lines.resize(self->message_bytes + longest_line);
    const outlet_owner owner = open_output(wanted);
    self->queue.open(owner, std::max<uint64_t>(wanted.queue_bytes, 4 * longest_line),
                     wanted.drain_s);
    return self;
}

// Hands over the first bytes, which hold all records that are counted.
void offer(exporter& self, size_t length, uint64_t now_ns) {
    const outlet_message message = {self.lines.data(), static_cast<uint32_t>(length),
                                    self.records,      self.packets,
                                    self.first_ns,     0};
    (void)self.queue.offer(message);  // what does not fit is counted there
    self.used = 0;
    self.records = 0;
    self.packets = 0;
    self.offered_ns = now_ns;
}

// Whether a line goes into another message than those that are gathered.
bool begins_message(const exporter& self, size_t length, uint64_t now_ns) {
    return self.used + length > self.message_bytes || now_ns - self.first_ns >= gathering_ns ||
           (self.period_ns != 0 && now_ns / self.period_ns != self.first_ns / self.period_ns);
}

void add(exporter& self, const flow_record& record) {
    const uint64_t now_ns = timer_get_nsec();
    char* const line = self.lines.data() + self.used;
    size_t length = self.encoder->encode(record, now_ns, line);
    line[length++] = '\n';
    if (self.records > 0 && begins_message(self, length, now_ns)) {
        offer(self, self.used, now_ns);
        std::memmove(self.lines.data(), line, length);
    }
    if (self.records == 0)
        self.first_ns = now_ns;
    self.used += length;
    self.records += 1;
    self.packets += record.packets;
    if (now_ns - self.offered_ns >= gathering_ns)
        offer(self, self.used, now_ns);
}

}  // namespace
}  // namespace json_export

using namespace json_export;

int32_t plugin_type = PLUGIN_KIND_EXPORT;
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;

const plugin_description* plugin_export_desc(void) {
    return &description;
}

void* plugin_export_init(char* params, getter* getters) {
    return start(params, getters);
}

uint32_t plugin_export_export(void* instance, flow_record* record) {
    add(*static_cast<exporter*>(instance), *record);
    return 0;
}

uint32_t plugin_export_flush(void* instance) {
    exporter& self = *static_cast<exporter*>(instance);
    if (self.records > 0)
        offer(self, self.used, timer_get_nsec());
    return 0;
}
