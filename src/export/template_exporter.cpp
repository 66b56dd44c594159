// The common part of the template exporters. Runs on the thread of the record loop; never touches a
// message header and never sends.
//
// Nothing is ever written after the 1450 bytes of sets in a packet, and no buffer ever holds more.
// With S = data_size, O = the cursor's offset (the template sets in the packet), n = the number of
// templates, T = bytes of a template set, L = bytes of a record:
//  - S is at least what the data sets take (D). It is that plus 4 for each empty template when it
//    is measured, right after a record was added, and nothing but a flush, which empties the
//    buffers, happens in between. Before the first record S is 0 and the data sets are empty.
//  - A record adds at most L + 3 to D, and 4 more for the header of a set that begins with it.
//  - is_full said no: S + O + L <= 1450 - 16, so O + D <= 1450 - 16 + 7 with the record.
//  - is_full (or a change of sampling, or the clock) made a flush: D is 0, the record makes it at
//    most 4 + round_up_to_4(L), and it is added without another look. templates_fit_at has seen to
//    the room for it after every template set: at the start for one, later for each further one.
#include "export/template_exporter.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/heap.h"
#include "base/log.h"
#include "base/memory.h"
#include "export/template_plan.h"

namespace kestrel {
namespace {

constexpr const char* builtin_addresses[] = {
    "IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IPV4_DST_ADDR=L3_IPV4_ADDR_DST",
    "IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC,IPV6_DST_ADDR=L3_IPV6_ADDR_DST",
};
constexpr const char* builtin_transports[] = {
    "",
    ",L4_SRC_PORT=L4_PORT_SRC,L4_DST_PORT=L4_PORT_DST",
    ",L4_SRC_PORT=L4_PORT_SRC,L4_DST_PORT=L4_PORT_DST,TCP_FLAGS=L4_TCP_FLAGS",
    ",ICMP_TYPE_CODE=L4_ICMP_TYPE_CODE",
};

char** read_definitions(const char* path) {
    const config_lines lines(read_config(path));
    if (!lines)
        die(exit_config, "Template config error");
    return exporter_template_convert_config(lines.get());
}

char** find_definitions(const template_exporter& self) {
    if (self.template_file)
        return read_definitions(self.template_file);
    const char* path = self.protocol->default_file;
    if (access(path, R_OK) == 0)
        return read_definitions(path);
    verbose_msg(-1, "Default template config (%s) NOT found. Using minimalistic built in.", path);
    return builtin_definitions(self.protocol->builtin_head);
}

// Whether a template set, written at the offset, leaves the room that one record may take.
bool templates_fit_at(const template_exporter& self, uint32_t offset) {
    const uint32_t first_record = 4 + (self.templates->largest_record + 3) / 4 * 4;
    return offset + self.templates_length + first_record <= TEMPLATE_SETS_SIZE;
}

// Returns the number of templates.
uint32_t write_templates(template_exporter& self, uint64_t now_s) {
    self.last_templates_s = now_s;
    // A set after another one tells the collector nothing new: records go first.
    if (self.cursor.offset > 0 && !templates_fit_at(self, self.cursor.offset))
        return 0;
    return exporter_template_fill_packet_templates(self.templates, &self.cursor);
}

constexpr metric_row template_rows[] = {
    {"kestrelexp_export_template_restarts_total", "Times that the templates were sent again.",
     nullptr, METRIC_COUNTER},
};

}  // namespace

counter_block<template_metric> count_templates() {
    return {template_rows, metrics_label()};
}

void read_parameters(template_exporter& self, char* params,
                     std::initializer_list<config_setting> more) {
    std::vector<config_setting> settings = {
        {"source_id", &self.source_id, CONFIG_INTEGER},
        {"host", &self.to.host, CONFIG_STRING},
        {"port", &self.to.port, CONFIG_INTEGER},
        {"ip", &self.to.ip, CONFIG_INTEGER},
        {"template-refresh-time", &self.refresh_time_s, CONFIG_INTEGER},
        {"template-refresh-packets", &self.refresh_packets, CONFIG_INTEGER},
        {self.protocol->file_key, &self.template_file, CONFIG_STRING},
    };
    settings.insert(settings.end(), more);
    for (const config_setting& row : self.background.rows())
        settings.push_back(row);
    for (const config_setting& row : self.options_wanted.rows())
        settings.push_back(row);
    settings.push_back({nullptr, nullptr, 0});
    if (config_set_values(params, settings.data()) != 0)
        die(exit_config, "Parameters decoding problem");
    if (!self.to.host)
        die(exit_config, "Hostname parameter is mandatory for netflow v9 export");
    self.refresh_packets = std::max(self.refresh_packets, 1);
}

char** builtin_definitions(const char* head) {
    std::vector<std::string> lines;
    for (const char* addresses : builtin_addresses) {
        for (const char* transport : builtin_transports) {
            lines.emplace_back("BEGIN-TEMPLATE");
            lines.push_back(std::string(head) + addresses + transport);
        }
    }
    std::vector<char*> pointers;
    pointers.reserve(lines.size() + 1);
    for (std::string& line : lines)
        pointers.push_back(line.data());
    pointers.push_back(nullptr);
    return exporter_template_convert_config(pointers.data());
}

void load_templates(template_exporter& self, getter* getters) {
    self.last_templates_s = timer_get_sec();
    verbose_msg(2, "init templates");
    const heap_array definitions(find_definitions(self));
    self.templates = exporter_template_init(definitions.get(), self.protocol->elements, getters);
    if (!self.templates)
        die(exit_config, "No templates found");
    self.templates->set_id = self.protocol->template_set_id;
    self.templates_length = self.templates->plan->set_length(self.templates->count);
    if (!templates_fit_at(self, 0))
        die(exit_config,
            "Templates too large for a packet: %u bytes of templates and a record of %u bytes",
            self.templates_length, self.templates->largest_record);
}

void connect_collector(template_exporter& self, const char* name, conversation& protocol) {
    if (is_background(self.background)) {
        self.queue = open_background(name, self.background, self.to, protocol, self.account);
        return;
    }
    self.socket = net_connect(self.to);
    if (self.socket <= 0)
        die(exit_config, "Can't connect to collector");
}

void prepare_options(template_exporter& self) {
    if (are_options_wanted(self.options_wanted))
        self.options = make_lifelong<options_records>(self.options_wanted, self.protocol->options,
                                                      static_cast<uint32_t>(self.source_id));
}

void open_packet(template_exporter& self) {
    self.cursor.buffer = self.packet + self.protocol->header_length;
    if (self.queue != nullptr)
        return;
    const uint32_t count = write_templates(self, timer_get_sec());  // an empty packet has room
    // They wait for the first record, unless options records are to come after them.
    if (self.options != nullptr)
        self.pending += count;
}

uint32_t write_greeting(const template_exporter& self, uint8_t* sets, uint32_t& length) {
    template_cursor cursor = {sets, 0, 0};
    const uint32_t count = exporter_template_fill_packet_templates(self.templates, &cursor);
    length = cursor.offset;
    return count;
}

int32_t options_pause_ms(const template_exporter& self, uint64_t now_ns) {
    if (!has_options_here(self))
        return EXPORT_TEND_NEVER;
    constexpr uint64_t longest_ms = 50;  // a new connection may have begun a round meanwhile
    const uint64_t next_ns = std::max(self.options->next_look_ns(now_ns), now_ns);
    return static_cast<int32_t>(std::min((next_ns - now_ns) / ns_per_ms, longest_ms));
}

uint32_t close_packet(template_exporter& self) {
    exporter_template_fill_packet_data(self.templates, &self.cursor);
    assert(self.cursor.offset <= TEMPLATE_SETS_SIZE);
    return self.protocol->header_length + self.cursor.offset;
}

void start_packet(template_exporter& self) {
    self.cursor.offset = 0;
    self.cursor.count = 0;
    self.pending = 0;
}

uint32_t restart_templates(template_exporter& self, uint64_t now_s) {
    const uint32_t count = write_templates(self, now_s);
    self.template_counter.add(template_metric::restarts, count > 0 ? 1 : 0);
    return count;
}

uint32_t refresh_templates(template_exporter& self, uint64_t now_s) {
    uint32_t count = 0;
    if (self.templates->packets_built % static_cast<uint32_t>(self.refresh_packets) == 0)
        count += restart_templates(self, now_s);
    // A negative time is always over, even right after the set above: unsigned on purpose.
    if (now_s > self.last_templates_s + static_cast<uint64_t>(int64_t{self.refresh_time_s}))
        count += restart_templates(self, now_s);
    return count;
}

}  // namespace kestrel
