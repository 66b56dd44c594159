/* An export that writes each flow as a line of text (-E flow_lines:file=PATH): the time by the
 * program's clock, and all that is defined of the record. */
#include <stdio.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_EXPORT;

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"flow_lines", "Flows as text", 0,
                                                          PLUGIN_WHOLE_PARAMS};
    return &description;
}

void* plugin_export_init(char* params, struct getter* getters) {
    char* path = NULL;
    const struct config_setting settings[] = {{"file", (void*)&path, CONFIG_STRING},
                                              {NULL, NULL, 0}};
    (void)getters;
    if (config_set_values(params, settings) != 0 || path == NULL)
        return NULL;
    return fopen(path, "w");
}

uint32_t plugin_export_export(void* instance, struct flow_record* flow) {
    FILE* file = instance;
    const uint8_t* addresses = (const uint8_t*)&flow->ipv4;
    const unsigned is_ipv4 = flow->l3protocol == 4;
    fprintf(file, "%llu: %llu %llu %u %u %u %u %u %u %u %u %u ",
            (unsigned long long)timer_get_nsec(), (unsigned long long)flow->start,
            (unsigned long long)flow->end, flow->packets, flow->bytes, flow->l3protocol,
            is_ipv4 ? flow->ipv4.tos : 0, flow->l4protocol, flow->srcport, flow->dstport,
            flow->tcpflags, flow->sampling);
    for (unsigned n = 0; n < (is_ipv4 ? 8 : 32); ++n)
        fprintf(file, "%02x", addresses[n]);
    fputc('\n', file);
    return 0;
}

uint32_t plugin_export_flush(void* instance) {
    return fflush(instance) == 0 ? 0 : 0xFFFFFFFF;
}
