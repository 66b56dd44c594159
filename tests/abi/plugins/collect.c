/* An export that writes each record as a line of text (-E collect:file=PATH), and "flush" for each
 * flush. offset and length name bytes of the record that are added in hexadecimal; fields=NAME/NAME
 * names getters whose values are added as NAME=HEX, in network order. Built with TENDS it writes
 * "tend" each time that it is called for, which it wants five times, 20 ms apart. */
#include <stdio.h>
#include <stdlib.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_EXPORT;

enum { FIELD_LIMIT = 8, WIDEST_FIELD = 16 };

struct collector {
    FILE* file;
    int32_t offset;
    int32_t length;
    uint32_t field_count;
    struct getter fields[FIELD_LIMIT];
};

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"collect", "Records as text", 0, 0};
    return &description;
}

/* Whether every name, parted by '/', is the name of a getter. */
static int find_fields(struct collector* collector, char* names, struct getter* getters) {
    char** const pieces = char_split(names, '/', 0);
    for (char** name = pieces; *name != NULL; ++name) {
        const struct getter* field = getter_by_name(getters, *name);
        if (field == NULL || field->length > WIDEST_FIELD || collector->field_count == FIELD_LIMIT)
            return 0;
        collector->fields[collector->field_count++] = *field;
    }
    free(pieces);
    return 1;
}

static void print_field(FILE* file, const struct getter* field, const struct flow_record* record) {
    uint8_t value[WIDEST_FIELD];
    field->get(field->context, record, value, field->length, 1, field);
    char* text = str2hexa(value, field->length);
    fprintf(file, " %s=%s", field->name, text);
    free(text);
}

void* plugin_export_init(char* params, struct getter* getters) {
    struct collector* collector = malloc_wrapper(sizeof *collector, 0);
    char* path = NULL;
    char* names = NULL;
    const struct config_setting settings[] = {
        {"file", (void*)&path, CONFIG_STRING},
        {"offset", &collector->offset, CONFIG_INTEGER},
        {"length", &collector->length, CONFIG_INTEGER},
        {"fields", (void*)&names, CONFIG_STRING},
        {NULL, NULL, 0},
    };
    if (config_set_values(params, settings) != 0 || path == NULL || getters == NULL ||
        !find_fields(collector, names, getters))
        return NULL;
    collector->file = fopen(path, "w");
    return collector->file == NULL ? NULL : collector;
}

uint32_t plugin_export_export(void* instance, struct flow_record* r) {
    const struct collector* collector = instance;
    fprintf(collector->file,
            "%llu %llu %u %u %u %u ip%u %08x %08x %02x proto%u %u %u %02x %u %u %u",
            (unsigned long long)r->start, (unsigned long long)r->end, r->packets, r->bytes,
            r->inputsnmp, r->outputsnmp, r->l3protocol, r->ipv4.srcipv4, r->ipv4.dstipv4,
            r->ipv4.tos, r->l4protocol, r->srcport, r->dstport, r->tcpflags, r->icmptypecode,
            r->sampling, r->export_flag);
    if (collector->length > 0) {
        char* area = str2hexa((const uint8_t*)r + collector->offset, (unsigned)collector->length);
        fprintf(collector->file, " +%s", area);
        free(area);
    }
    for (uint32_t i = 0; i < collector->field_count; ++i)
        print_field(collector->file, &collector->fields[i], r);
    fprintf(collector->file, "\n");
    fflush(collector->file);
    return 0;
}

uint32_t plugin_export_flush(void* instance) {
    const struct collector* collector = instance;
    fprintf(collector->file, "flush\n");
    fflush(collector->file);
    return 0;
}

#ifdef TENDS
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;

int32_t plugin_export_tend(void* instance) {
    static unsigned calls;
    const struct collector* collector = instance;
    fprintf(collector->file, "tend\n");
    fflush(collector->file);
    return ++calls < 5 ? 20 : EXPORT_TEND_NEVER;
}
#endif
