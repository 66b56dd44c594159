/* A filter: drops the flows of one source port (srcport=N), sets the type of service of those it
 * keeps (tos=N), adds a getter (getter=NAME). */
#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_FILTER;

struct dropper {
    int32_t srcport;
    int32_t tos;
};

const struct plugin_description* plugin_filter_desc(void) {
    static const struct plugin_description description = {"drop", "Drops a port", 0, 0};
    return &description;
}

void* plugin_filter_init(char* params, struct getter** getters) {
    struct dropper* dropper = malloc_wrapper(sizeof *dropper, 0);
    char* name = NULL;
    const struct config_setting settings[] = {{"srcport", &dropper->srcport, CONFIG_INTEGER},
                                              {"tos", &dropper->tos, CONFIG_INTEGER},
                                              {"getter", (void*)&name, CONFIG_STRING},
                                              {NULL, NULL, 0}};
    if (config_set_values(params, settings) != 0)
        return NULL;
    if (name != NULL)
        getter_add(getters, name, 2, NULL, record_valid_ok, record_length_2, record_get_srcport);
    return dropper;
}

int32_t plugin_filter_filter(void* instance, struct flow_record* record) {
    const struct dropper* dropper = instance;
    if (record->srcport == dropper->srcport)
        return 1;
    if (dropper->tos != 0)
        record->ipv4.tos = (uint8_t)dropper->tos;
    return 0;
}
