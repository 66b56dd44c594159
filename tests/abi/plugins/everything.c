/* An export plugin that uses, from inside the running program, every function and global that the
 * public headers declare, and says what it thinks of the results. Its init fails, which ends the
 * program. */
#include "everything.h"

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_EXPORT;

static int failures;

void check(int holds, const char* file, int line, const char* condition) {
    if (holds)
        return;
    ++failures;
    verbose_msg(-1, "%s:%i: %s does not hold", file, line, condition);
}

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"everything", "Calls everything", 0, 0};
    return &description;
}

void* plugin_export_init(char* params, struct getter* getters) {
    CHECK(params == NULL);
    CHECK(getter_by_name(getters, "L4_PORT_SRC") != NULL);
    check_services();
    check_getters();
    check_accessors();
    check_packets();
    check_flow_engine();
    check_filters();
    check_plugins();
    check_templates(getters);
    check_rules();
    check_addresses();
    check_metrics();
    check_outlets();
    check_field_names();
    verbose_msg(-1, "everything: %i failures", failures);
    return NULL;
}

uint32_t plugin_export_export(void* instance, struct flow_record* record) {
    (void)instance, (void)record;
    return 0;
}

uint32_t plugin_export_flush(void* instance) {
    (void)instance;
    return 0;
}
