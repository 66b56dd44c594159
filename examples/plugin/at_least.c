/* A filter to begin with: "at_least" keeps the flows that have a given number of packets and drops
 * the others.
 *
 *     kestrelexp -X af-packet.so,./at_least.so -I af-packet:device=eth0 \
 *         -F at_least:packets=10 -E ...
 *
 * Runs on the main thread alone, like every filter and export, so it needs no locks.
 */
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>

/* The kind of this object. Its entry points are declared at the end of kestrelexp/plugin.h. */
KX_API int32_t plugin_type = PLUGIN_KIND_FILTER;

struct at_least {
    int32_t packets;
};

const struct plugin_description* plugin_filter_desc(void) {
    static const struct plugin_description description = {
        "at_least",
        "Keeps flows of at least so many packets.\n"
        "Parameters:\n"
        " packets=number (default = 2)",
        0, 0};
    return &description;
}

/* Called once for each -F or -G that names this filter. NULL would end the program. */
void* plugin_filter_init(char* params, struct getter** getters) {
    struct at_least* instance = malloc_wrapper(sizeof *instance, 0);
    const struct config_setting settings[] = {
        {"packets", &instance->packets, CONFIG_INTEGER},
        {NULL, NULL, 0},
    };
    (void)getters; /* a filter that provides fields for templates would add them here */
    instance->packets = 2;
    if (params != NULL && config_set_values(params, settings) != 0)
        return NULL;
    verbose_msg(0, "at_least: flows of %i packets and more", (int)instance->packets);
    return instance;
}

/* 0 keeps the flow. Called for every flow that ends, so it is short. */
int32_t plugin_filter_filter(void* instance, struct flow_record* flow) {
    const struct at_least* wanted = instance;
    return (int64_t)flow->packets < wanted->packets;
}
