/* An input of finished flows to begin with: "finished" reads the lines that the export csv.c wrote,
 * and hands each of them on as a flow.
 *
 *     kestrelexp -X ./finished.so -I finished:file=flows.csv -E
 * netflow-v5:host=192.0.2.10,port=2055
 *
 * There is no flow cache and no ageing. Runs on a thread of its own. IPv4 only, to be short.
 */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <inttypes.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <stdio.h>
#include <time.h>

KX_API int32_t plugin_type = PLUGIN_KIND_INPUT;

struct finished {
    FILE* file;
    int has_ended;
};

const struct plugin_description* plugin_input_desc(void) {
    static const struct plugin_description description = {
        "finished",
        "Reads finished flows from a file of comma-separated values.\n"
        "Parameters:\n"
        " file=path (mandatory)",
        0, 0};
    return &description;
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    struct finished* instance = malloc_wrapper(sizeof *instance, 0);
    char* path = NULL;
    const struct config_setting settings[] = {
        {"file", &path, CONFIG_STRING},
        {NULL, NULL, 0},
    };
    (void)needs_packets; /* always 0 */
    (void)data_offset;
    if (config_set_values(params, settings) != 0 || path == NULL)
        return NULL;
    instance->file = fopen(path, "r");
    if (instance->file == NULL)
        verbose_msg(-1, "finished: cannot open %s", path);
    return instance->file != NULL ? instance : NULL;
}

/* Fills all of the record but its data space. A file with times would set start and end to them. */
static int parse(const char* line, struct flow_record* record) {
    char source[16], destination[16];
    uint8_t protocol;
    uint16_t source_port, destination_port;
    uint32_t packets, bytes;
    struct in_addr from, to;
    const uint64_t now = timer_get_nsec();
    if (sscanf(line, "%15[^,],%15[^,],%" SCNu8 ",%" SCNu16 ",%" SCNu16 ",%" SCNu32 ",%" SCNu32,
               source, destination, &protocol, &source_port, &destination_port, &packets,
               &bytes) != 7 ||
        inet_pton(AF_INET, source, &from) != 1 || inet_pton(AF_INET, destination, &to) != 1)
        return 0;
    *record = (struct flow_record){.start = now,
                                   .end = now,
                                   .packets = packets,
                                   .bytes = bytes,
                                   .ipv4 = {ntohl(from.s_addr), ntohl(to.s_addr), 0},
                                   .l3protocol = 4,
                                   .l4protocol = protocol,
                                   .srcport = source_port,
                                   .dstport = destination_port};
    return 1;
}

/* 0 when the record was filled, anything else when there is no flow: a finished flow has no key. */
flow_key plugin_input_get_final_flow(void* instance, struct flow_record* record) {
    struct finished* self = instance;
    const struct timespec pause = {0, 10 * 1000 * 1000};
    char line[160];
    if (fgets(line, sizeof line, self->file) != NULL)
        return parse(line, record) ? 0 : 1;
    if (!self->has_ended)
        verbose_msg(0, "finished: end of the file");
    self->has_ended = 1;
    nanosleep(&pause, NULL);
    return 1;
}
