// From records to sets: choosing a template, appending records to its buffer in wire form, writing
// template sets and data sets. Runs for each exported flow on the thread of the exporter that owns
// the collection; allocates nothing and sends nothing.
#include <algorithm>
#include <cstring>
#include <span>

#include "base/log.h"
#include "base/wire.h"
#include "export/template_plan.h"
#include "kestrelexp/template.h"

namespace kestrel {
namespace {

constexpr int exit_set_too_long = -42;
constexpr uint32_t not_exported = 0xFFFFFFFF;
constexpr uint32_t set_header_size = 4;
constexpr uint32_t most_bytes_held = 0xFFFF;

constexpr uint32_t round_up_to_4(uint32_t length) {
    return (length + 3) & ~uint32_t{3};
}

std::span<export_template> all_templates(const template_collection* collection) {
    return {collection->templates, static_cast<size_t>(collection->count)};
}

uint16_t template_id(size_t index) {
    return static_cast<uint16_t>(TEMPLATE_FIRST_ID + index);
}

// Only a caller that never flushes comes here. The bytes are counted, so the flush that follows
// finds a set that is too long; it never comes to be written.
__attribute__((noinline)) void report_overfull(uint32_t held, int32_t index, size_t field) {
    verbose_msg(-1, "template add processing BUG length: %i, template: %i, field: %i",
                static_cast<int>(held), index, static_cast<int>(field));
}

void copy_data_set(template_data& data, size_t index, template_cursor& cursor) {
    const uint32_t length = round_up_to_4(data.length + set_header_size);
    data.set_id_be = byte_swap(template_id(index));
    data.length = byte_swap(static_cast<uint16_t>(length));
    if (length > TEMPLATE_SETS_SIZE)
        die(exit_set_too_long, "TEMPLATE PROCESSING BUG");
    // The padding is what earlier records left there: collectors skip it.
    std::memcpy(cursor.buffer + cursor.offset, &data, length);
    cursor.offset += length;
    data.length = 0;
}

void write_field_specifier(wire_writer& out, const template_element& element, uint32_t enterprise) {
    constexpr uint16_t enterprise_bit = 0x8000;
    if (enterprise == 0) {
        out.u16(element.id);
        out.u16(element.length);
        return;
    }
    out.u16(static_cast<uint16_t>(element.id | enterprise_bit));
    out.u16(element.length);
    out.u32(enterprise);
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

uint32_t exporter_template_find(const struct template_collection* collection,
                                const struct flow_record* record, int32_t* index) {
    const uint64_t valid = collection->plan->validity.bits(record);
    for (int32_t i = 0; i < collection->count; ++i) {
        if ((collection->templates[i].required & ~valid) == 0) {
            *index = i;
            return collection->templates[i].record_length;
        }
    }
    *index = -1;
    return 0;
}

uint32_t exporter_template_add_record(struct template_collection* collection,
                                      const struct flow_record* record, int32_t index) {
    if (index < 0)
        exporter_template_find(collection, record, &index);
    if (index < 0 || index >= collection->count)
        return not_exported;
    if (verbose(5))
        record_print(5, record);
    export_template& chosen = collection->templates[index];
    template_data& data = *chosen.data;
    const std::span<const template_field> rows = collection->plan->rows_of(index);
    uint32_t held = data.length;
    for (size_t field = 0; field < rows.size(); ++field) {
        const template_field& row = rows[field];
        if (held + row.length <= TEMPLATE_SETS_SIZE)
            row.get(row.context, record, data.records + held, row.length, 1, row.self);
        held += row.length;
        if (held > TEMPLATE_SETS_SIZE) [[unlikely]]
            report_overfull(held, index, field);
    }
    data.length = static_cast<uint16_t>(std::min(held, most_bytes_held));
    ++chosen.buffered_records;
    ++collection->records_added;
    return 0;
}

uint16_t exporter_template_current_data_size(const struct template_collection* collection) {
    uint32_t size = 0;
    for (const export_template& definition : all_templates(collection))
        size = round_up_to_4(size + definition.data->length + set_header_size);
    return static_cast<uint16_t>(size);
}

uint32_t exporter_template_fill_packet_templates(struct template_collection* collection,
                                                 struct template_cursor* cursor) {
    const uint32_t length = collection->plan->set_length(collection->count);
    wire_writer out({cursor->buffer + cursor->offset, length});
    out.u16(collection->set_id);
    out.u16(static_cast<uint16_t>(length));
    for (int32_t index = 0; index < collection->count; ++index) {
        const export_template& definition = collection->templates[index];
        const std::span<const template_field> rows = collection->plan->rows_of(index);
        out.u16(template_id(static_cast<size_t>(index)));
        out.u16(definition.field_count);
        for (size_t field = 0; field < rows.size(); ++field)
            write_field_specifier(out, *definition.elements[field], rows[field].enterprise);
    }
    const auto count = static_cast<uint32_t>(collection->count);
    cursor->offset += length;
    cursor->count += count;
    return count;
}

void exporter_template_fill_packet_data(struct template_collection* collection,
                                        struct template_cursor* cursor) {
    size_t index = 0;
    for (export_template& definition : all_templates(collection)) {
        if (definition.data->length > 0) {
            copy_data_set(*definition.data, index, *cursor);
            cursor->count += definition.buffered_records;
            definition.buffered_records = 0;
        }
        ++index;
    }
    ++collection->packets_built;
}
