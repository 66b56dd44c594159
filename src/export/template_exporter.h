// What the IPFIX and NetFlow v9 exporters do alike: parameters, finding and loading templates, when
// a packet is full, when templates are sent again. Used on the thread of the record loop. Message
// headers, sequence numbers and sending stand with the exporters.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>

#include "export/background.h"
#include "export/net.h"
#include "export/options_records.h"
#include "export/send_account.h"
#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"
#include "kestrelexp/template.h"

namespace kestrel {

inline constexpr uint32_t not_exported = 0xFFFFFFFF;
inline constexpr uint32_t largest_header = 20;  // bytes

// What the shared code has to know of a protocol.
struct template_protocol {
    const char* default_file;  // templates without a parameter that names a file
    const char* builtin_head;  // what the built-in definitions begin with
    const char* file_key;      // that parameter
    const template_element* elements;
    uint16_t template_set_id;
    uint32_t header_length;  // bytes in front of the sets
    options_protocol options = options_protocol::ipfix;
};

// Defined beside the exporters.
extern const template_protocol ipfix_protocol;
extern const template_protocol netflow_v9_protocol;

enum class template_metric { restarts, count };
counter_block<template_metric> count_templates();

struct template_exporter {
    const template_protocol* protocol;

    // Parameters
    collector to = {};
    int32_t source_id = 0;
    int32_t refresh_time_s = 600;
    int32_t refresh_packets = 2048;
    char* template_file = nullptr;
    background_settings background = {};
    options_settings options_wanted = {};

    send_account account{"reason=\"no_template\""};
    counter_block<template_metric> template_counter = count_templates();
    int socket = -1;
    outlet* queue = nullptr;             // of an export in the background, which has no socket
    options_records* options = nullptr;  // null: none are sent
    template_collection* templates = nullptr;
    uint32_t templates_length = 0;  // bytes of a template set
    uint64_t last_templates_s = 0;  // when a template set was written last
    uint16_t last_sampling = 0;
    uint32_t pending = 0;    // what makes a flush worth while; see the exporters
    uint32_t data_size = 0;  // exporter_template_current_data_size after the last record
    template_cursor cursor = {};
    uint8_t packet[largest_header + TEMPLATE_SETS_SIZE] = {};
};

// The steps of an exporter's init, in their order. Each ends the program (status 255) when it
// fails. more: settings of one protocol only.
void read_parameters(template_exporter& self, char* params,
                     std::initializer_list<config_setting> more);
void load_templates(template_exporter& self, getter* getters);
// Or opens an outlet, whose worker follows the protocol; name: the export's.
void connect_collector(template_exporter& self, const char* name, conversation& protocol);
// Makes ready for options records, if they are asked for. Before the packet is opened.
void prepare_options(template_exporter& self);
// The first carries all templates. In the background the greeting does.
void open_packet(template_exporter& self);

// Writes a template set where it may take TEMPLATE_SETS_SIZE bytes, and its length; returns the
// number of templates. Reads the collection alone, so that a worker may do it.
uint32_t write_greeting(const template_exporter& self, uint8_t* sets, uint32_t& length);

// The definitions that serve when there is no template file: IPv4 and IPv6 flows, each with
// addresses only, with ports, with ports and TCP flags, with the ICMP type. As convert_config's.
char** builtin_definitions(const char* head);

// Whether a record of so many bytes does not fit after what the packet and the buffers hold.
inline bool is_full(const template_exporter& self, uint32_t record_length) {
    return self.data_size + self.cursor.offset + self.protocol->header_length + record_length >
           TEMPLATE_SETS_SIZE;
}

inline void add_record(template_exporter& self, const flow_record* record, int32_t index) {
    exporter_template_add_record(self.templates, record, index);
    self.data_size = exporter_template_current_data_size(self.templates);
    self.account.add_record(*record);
    ++self.pending;
    if (self.options != nullptr)
        self.options->note_flow(*record);
}

// Completes the packet with the buffered records; returns its bytes, header included.
uint32_t close_packet(template_exporter& self);

// Empties the packet and what is pending.
void start_packet(template_exporter& self);

// Writes a template set into the packet once more; returns the number of templates.
uint32_t restart_templates(template_exporter& self, uint64_t now_s);

// Writes the template sets that are due after a packet; returns the number of templates written.
uint32_t refresh_templates(template_exporter& self, uint64_t now_s);

// Whether options records are sent on the thread of the record loop.
inline bool has_options_here(const template_exporter& self) {
    return self.options != nullptr && self.queue == nullptr;
}

// What an export's tend operation answers after it has sent what was due.
int32_t options_pause_ms(const template_exporter& self, uint64_t now_ns);

}  // namespace kestrel
