/* The export "slow_export": counts what it is given and takes its time. Every every-th flow it says
 * "slow_export: pause" (when the pause is a second or more) and sleeps pause_ms milliseconds; at
 * each flush it reports the sums since the start. Runs on the record loop's thread.
 */
#include <inttypes.h>
#include <stdint.h>
#include <time.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

static struct {
    uint64_t flows, packets, octets;
    int32_t every, pause_ms;
} state;

int32_t plugin_type = PLUGIN_KIND_EXPORT;

static const struct plugin_description description = {
    .name = "slow_export", .description = "Counts flows and sleeps every now and then"};

const struct plugin_description* plugin_export_desc(void) {
    return &description;
}

void* plugin_export_init(char* params, struct getter* getters) {
    const struct config_setting settings[] = {{"every", &state.every, CONFIG_INTEGER},
                                              {"pause_ms", &state.pause_ms, CONFIG_INTEGER},
                                              {NULL, NULL, 0}};
    (void)getters;
    return config_set_values(params, settings) == 0 && state.every > 0 ? &state : NULL;
}

static void pause_now(void) {
    struct timespec left = {.tv_sec = state.pause_ms / 1000,
                            .tv_nsec = state.pause_ms % 1000 * 1000000L};
    if (left.tv_sec > 0)
        verbose_msg(-1, "slow_export: pause");
    while (nanosleep(&left, &left) != 0) {
        /* a signal came in between: sleep what is left */
    }
}

uint32_t plugin_export_export(void* instance, struct flow_record* record) {
    (void)instance;
    state.flows += 1;
    state.packets += record->packets;
    state.octets += record->bytes;
    if (state.flows % (uint64_t)state.every == 0)
        pause_now();
    return 0;
}

uint32_t plugin_export_flush(void* instance) {
    (void)instance;
    verbose_msg(-1, "slow_export: flows %" PRIu64 ", packets %" PRIu64 ", octets %" PRIu64,
                state.flows, state.packets, state.octets);
    return 0;
}
