/* The input "hanging": has no packet, and says so every 10 ms as long as the file that hang= names
 * is not there; then it does not come back. At its start it shows what the environment says of the
 * service manager. Built without COUNTERS it does not promise to come back now and then.
 */
#include <stdint.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_INPUT;

static char* hang_path;

static const struct plugin_description description = {.name = "hanging",
                                                      .description = "Hangs when it is told to"};

const struct plugin_description* plugin_input_desc(void) {
    return &description;
}

static const char* variable(const char* name) {
    const char* value = getenv(name);
    return value != NULL ? value : "none";
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    const struct config_setting settings[] = {{"hang", &hang_path, CONFIG_STRING}, {NULL, NULL, 0}};
    (void)needs_packets;
    (void)data_offset;
    verbose_msg(-1, "hanging: environment %s %s %s", variable("NOTIFY_SOCKET"),
                variable("WATCHDOG_USEC"), variable("WATCHDOG_PID"));
    return config_set_values(params, settings) == 0 && hang_path != NULL ? &hang_path : NULL;
}

uint32_t plugin_input_sampling(void* instance) {
    (void)instance;
    return 0;
}

static void sleep_ms(long ms) {
    const struct timespec time = {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1000000L};
    nanosleep(&time, NULL);
}

const uint8_t* plugin_input_get_packet(void* instance, struct packet_header* header) {
    (void)instance;
    (void)header;
    sleep_ms(10);
    if (access(hang_path, F_OK) == 0) {
        verbose_msg(-1, "hanging: now");
        for (;;)
            sleep_ms(100000);
    }
    return NULL;
}

#ifdef COUNTERS
void plugin_input_counters(void* instance, uint32_t queue, struct input_counts* counts) {
    (void)instance;
    (void)queue;
    (void)counts;
}
#endif
