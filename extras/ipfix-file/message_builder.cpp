// A message holds 1450 bytes of sets at most, as those for the network do: that is what the buffer
// of a template may hold, and fill_packet_data never writes more than current_data_size told after
// the last record. has_room leaves 16 bytes; a record adds its length, up to 3 of padding, and 4 of
// a set's header where it is the first of its set. The first record of a message is added without a
// look: load() refuses templates whose record would not fit.
#include "message_builder.h"

#include <kestrelexp/service.h>

#include <cstdlib>
#include <cstring>

namespace ipfix_file {
namespace {

constexpr uint16_t version = 10;
constexpr uint16_t template_set_id = 2;  // RFC 7011 section 3.3.2
constexpr size_t longest_message = 65535;

void store_be16(uint8_t* to, uint16_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}

// As read_config and convert_config return them.
void free_list(char** list) {
    for (char** each = list; each != nullptr && *each != nullptr; ++each)
        std::free(*each);
    std::free(static_cast<void*>(list));
}

}  // namespace

void store_be32(uint8_t* to, uint32_t value) {
    store_be16(to, static_cast<uint16_t>(value >> 16));
    store_be16(to + 2, static_cast<uint16_t>(value));
}

uint32_t load_be32(const uint8_t* from) {
    return uint32_t{from[0]} << 24 | uint32_t{from[1]} << 16 | uint32_t{from[2]} << 8 | from[3];
}

bool message_builder::load(const char* template_file, uint32_t domain, getter* getters) {
    domain_ = domain;
    char** const lines = read_config(template_file);
    if (lines == nullptr) {
        verbose_msg(-1, "ipfix-file: the template file %s cannot be read", template_file);
        return false;
    }
    char** const definitions = exporter_template_convert_config(lines);
    free_list(lines);
    templates_ = exporter_template_init(definitions, static_field_ipfix, getters);
    std::free(static_cast<void*>(definitions));
    if (templates_ == nullptr) {
        verbose_msg(-1, "ipfix-file: there is no template in %s", template_file);
        return false;
    }
    templates_->set_id = template_set_id;
    return make_opening();
}

bool message_builder::make_opening() {
    constexpr uint32_t set_header = 4;
    constexpr uint32_t template_header = 4;
    constexpr uint32_t longest_field = 8;  // bytes that tell of an element, with its enterprise
    size_t most = header_length + set_header;
    for (int32_t n = 0; n < templates_->count; ++n)
        most += template_header + size_t{templates_->templates[n].field_count} * longest_field;
    opening_.resize(most);
    template_cursor cursor = {opening_.data() + header_length, 0, 0};
    (void)exporter_template_fill_packet_templates(templates_, &cursor);  // their number is known
    opening_.resize(header_length + cursor.offset);
    const uint32_t first_record = set_header + (templates_->largest_record + 3) / 4 * 4;
    if (opening_.size() > longest_message || first_record > TEMPLATE_SETS_SIZE) {
        verbose_msg(-1,
                    "ipfix-file: templates too large for a message: %zu bytes of templates and a "
                    "record of %u bytes",
                    opening_.size() - header_length, templates_->largest_record);
        return false;
    }
    write_header(opening_.data(), opening_.size(), 0);
    return true;
}

void message_builder::write_header(uint8_t* message, size_t length, uint64_t time_s) const {
    store_be16(message, version);
    store_be16(message + 2, static_cast<uint16_t>(length));
    store_be32(message + export_time_at, static_cast<uint32_t>(time_s));
    store_be32(message + sequence_at, 0);
    store_be32(message + 12, domain_);
}

void message_builder::add(const flow_record& record, int32_t index) {
    (void)exporter_template_add_record(templates_, &record, index);  // there is such a template
    data_size_ = exporter_template_current_data_size(templates_);
    records_ += 1;
    packets_ += record.packets;
}

outlet_message message_builder::close(uint64_t time_s) {
    template_cursor cursor = {message_ + header_length, 0, 0};
    exporter_template_fill_packet_data(templates_, &cursor);
    const uint32_t length = static_cast<uint32_t>(header_length) + cursor.offset;
    write_header(message_, length, time_s);
    const outlet_message closed = {message_, length, records_, packets_, records_before_, 0};
    records_before_ += records_;
    records_ = 0;
    packets_ = 0;
    data_size_ = 0;
    return closed;
}

}  // namespace ipfix_file
