/* An export that refuses every second record and counts nothing. */
#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_EXPORT;

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"refuse", "Refuses records", 0, 0};
    return &description;
}

void* plugin_export_init(char* params, struct getter* getters) {
    (void)params;
    (void)getters;
    return malloc_wrapper(sizeof(uint32_t), 0);
}

uint32_t plugin_export_export(void* instance, struct flow_record* record) {
    uint32_t* const record_count = instance;
    (void)record;
    return (*record_count)++ % 2 == 1 ? UINT32_C(0xFFFFFFFF) : 0;
}

uint32_t plugin_export_flush(void* instance) {
    (void)instance;
    return 0;
}
