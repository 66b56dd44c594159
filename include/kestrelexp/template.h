/* Export templates: which fields a template exporter sends for a flow, in which order and width.
 *
 * Definitions (from a template file or built in) are turned into a collection once, at start-up.
 * Then, for each flow: a template is found, the record is appended to that template's buffer in
 * wire form, and at a flush all buffers are copied into a packet as data sets, after a template
 * set when one is due. Message headers, sequence numbers and sending are the exporters' own.
 *
 * A collection belongs to one exporter and is used by one thread. It lives as long as the program.
 * Faults in definitions are reported and end the program with status 255.
 */
#ifndef KESTRELEXP_TEMPLATE_H
#define KESTRELEXP_TEMPLATE_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One element that a template may name. A table is closed by a row whose name is NULL. */
struct template_element {
    const char* name;
    uint16_t id;     /* number on the wire (RFC 7012, RFC 3954 section 8), without enterprise bit */
    uint16_t length; /* bytes on the wire, whatever the getter's own length */
};

/* The elements of IPFIX and of NetFlow v9. The order decides between names that begin alike. */
extern KX_API const struct template_element static_field_ipfix[];
extern KX_API const struct template_element static_field_nf9[];

enum {
    TEMPLATE_SETS_SIZE = 1450, /* bytes of sets that one packet may carry */
    TEMPLATE_FIRST_ID = 256 /* id of the first template of a collection; the next have 257, ... */
};

/* The records of one template on their way into a packet, laid out as a data set. */
struct template_data {
    uint16_t set_id_be;
    uint16_t length; /* bytes of records held, host order; a flush makes it the set's length */
    uint8_t records[TEMPLATE_SETS_SIZE];
};

struct export_template {
    uint64_t required;         /* bits of the getters that must be valid for a record (getter.h) */
    uint16_t field_count;      /* rows of elements and entries of getters */
    uint16_t record_length;    /* bytes: the sum of the elements' lengths */
    uint32_t buffered_records; /* records in data */
    const struct template_element** elements;
    struct getter* getters; /* what supplies each field; entries keep their table's indices */
    struct template_data* data;
};

struct template_plan;

struct template_collection {
    struct export_template* templates; /* most required getters first */
    int32_t count;
    uint32_t largest_record; /* bytes */
    uint32_t records_added;  /* since the start */
    uint32_t packets_built;  /* since the start: calls of exporter_template_fill_packet_data */
    uint16_t set_id;         /* of template sets: 2 for IPFIX, 0 for NetFlow v9; set by the owner */
    struct getter* getters;  /* borrowed; the table that the definitions name their values from */
    struct template_plan* plan; /* prepared by exporter_template_init; private */
};

/* Where sets are written. The fill operations write at buffer + offset, advance offset and add to
 * count; the caller sees to the room (see each). */
struct template_cursor {
    uint8_t* buffer;
    uint32_t offset;
    uint32_t count; /* templates and records written */
};

/* Groups the lines of a template file (as read_config returns them; NULL reads as no lines) into
 * definitions: "element=value,element=value". Each "BEGIN-TEMPLATE" line opens one; one without
 * items is NULL. Returns an array closed by NULL, one heap block, the caller's to free. */
KX_API char** exporter_template_convert_config(char** lines);

/* Builds a collection from definitions up to the first NULL; NULL when there is none. elements and
 * getters are borrowed for the life of the collection, and getters must not grow any more. An
 * element that is no row of elements may be given by number and length ("id461/4"). */
KX_API struct template_collection* exporter_template_init(char** definitions,
                                                          const struct template_element* elements,
                                                          struct getter* getters);

/* The first row whose name begins the given name, or NULL. */
KX_API const struct template_element* exporter_template_find_field(
    const char* name, const struct template_element* elements);

/* Prints "Name,Length" and a line for each row to standard output. */
KX_API void exporter_template_print_fields(const struct template_element* elements);

/* Order of templates, for qsort over struct export_template: more required getters first. */
KX_API int exporter_template_cmp_rev(const void* left, const void* right);

/* Stores the position of the first template whose required getters are all valid for the record
 * and returns its record length in bytes; stores -1 and returns 0 when there is none. */
KX_API uint32_t exporter_template_find(const struct template_collection* collection,
                                       const struct flow_record* record, int32_t* index);

/* Appends the record to the buffer of the template at index, or of the one that it finds when
 * index is negative. Returns 0, or 0xFFFFFFFF when there is no such template. Values that would
 * lie after the buffer are counted and reported, not written. */
KX_API uint32_t exporter_template_add_record(struct template_collection* collection,
                                             const struct flow_record* record, int32_t index);

/* Bytes that the data sets will take at most: templates without records count 4 bytes each. */
KX_API uint16_t exporter_template_current_data_size(const struct template_collection* collection);

/* Writes one template set: 4 bytes, and for each template 4 + 4 * field_count, and 4 more for each
 * element of an enterprise, which definitions may name for static_field_ipfix alone
 * ("id32473.57/4"). Returns the number of templates. */
KX_API uint32_t exporter_template_fill_packet_templates(struct template_collection* collection,
                                                        struct template_cursor* cursor);

/* Writes a data set for each template that holds records and empties the buffers. Needs the room
 * that exporter_template_current_data_size tells. A set of more than 1450 bytes ends the program
 * with status 214. */
KX_API void exporter_template_fill_packet_data(struct template_collection* collection,
                                               struct template_cursor* cursor);

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct template_element) == 16);
KX_ASSERT_LAYOUT(offsetof(struct template_element, id) == 8);
KX_ASSERT_LAYOUT(offsetof(struct template_element, length) == 10);
KX_ASSERT_LAYOUT(sizeof(struct template_data) == 1454);
KX_ASSERT_LAYOUT(offsetof(struct template_data, length) == 2);
KX_ASSERT_LAYOUT(offsetof(struct template_data, records) == 4);
KX_ASSERT_LAYOUT(sizeof(struct export_template) == 40);
KX_ASSERT_LAYOUT(offsetof(struct export_template, field_count) == 8);
KX_ASSERT_LAYOUT(offsetof(struct export_template, record_length) == 10);
KX_ASSERT_LAYOUT(offsetof(struct export_template, buffered_records) == 12);
KX_ASSERT_LAYOUT(offsetof(struct export_template, elements) == 16);
KX_ASSERT_LAYOUT(offsetof(struct export_template, getters) == 24);
KX_ASSERT_LAYOUT(offsetof(struct export_template, data) == 32);
KX_ASSERT_LAYOUT(sizeof(struct template_collection) == 48);
KX_ASSERT_LAYOUT(offsetof(struct template_collection, count) == 8);
KX_ASSERT_LAYOUT(offsetof(struct template_collection, largest_record) == 12);
KX_ASSERT_LAYOUT(offsetof(struct template_collection, records_added) == 16);
KX_ASSERT_LAYOUT(offsetof(struct template_collection, packets_built) == 20);
KX_ASSERT_LAYOUT(offsetof(struct template_collection, set_id) == 24);
KX_ASSERT_LAYOUT(offsetof(struct template_collection, getters) == 32);
KX_ASSERT_LAYOUT(offsetof(struct template_collection, plan) == 40);
KX_ASSERT_LAYOUT(sizeof(struct template_cursor) == 16);
KX_ASSERT_LAYOUT(offsetof(struct template_cursor, offset) == 8);
KX_ASSERT_LAYOUT(offsetof(struct template_cursor, count) == 12);

#endif
