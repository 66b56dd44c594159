/* An export that writes each record as a line of text (-E collect:file=PATH), and "flush" for each
 * flush. offset and length name bytes of the record that are added in hexadecimal. */
#include <stdio.h>
#include <stdlib.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_EXPORT;

struct collector {
    FILE* file;
    int32_t offset;
    int32_t length;
};

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"collect", "Records as text", 0, 0};
    return &description;
}

void* plugin_export_init(char* params, struct getter* getters) {
    struct collector* collector = malloc_wrapper(sizeof *collector, 0);
    char* path = NULL;
    const struct config_setting settings[] = {
        {"file", (void*)&path, CONFIG_STRING},
        {"offset", &collector->offset, CONFIG_INTEGER},
        {"length", &collector->length, CONFIG_INTEGER},
        {NULL, NULL, 0},
    };
    if (config_set_values(params, settings) != 0 || path == NULL || getters == NULL)
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
