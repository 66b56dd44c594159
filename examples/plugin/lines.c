/* An input of packets to begin with: "lines" reads one packet a line from a text file.
 *
 *     SOURCE DESTINATION PROTOCOL SOURCE_PORT DESTINATION_PORT BYTES
 *
 *     kestrelexp -X ./lines.so,./csv.so -I lines:file=packets.txt -E csv:
 *
 * The flow cache makes flows of them. Runs on the reader thread alone. IPv4 only, to be short.
 */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <inttypes.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <stdio.h>
#include <time.h>

KX_API int32_t plugin_type = PLUGIN_KIND_INPUT;

struct lines {
    FILE* file;
    int has_ended;
};

const struct plugin_description* plugin_input_desc(void) {
    static const struct plugin_description description = {
        "lines",
        "Reads packets from a text file, one a line.\n"
        "Parameters:\n"
        " file=path (mandatory)",
        0, 0};
    return &description;
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    struct lines* instance = malloc_wrapper(sizeof *instance, 0);
    char* path = NULL;
    const struct config_setting settings[] = {
        {"file", &path, CONFIG_STRING},
        {NULL, NULL, 0},
    };
    (void)needs_packets; /* 0: there is no plugin_input_get_flow_packet that could show a frame */
    (void)data_offset;
    if (config_set_values(params, settings) != 0 || path == NULL)
        return NULL;
    instance->file = fopen(path, "r");
    if (instance->file == NULL)
        verbose_msg(-1, "lines: cannot open %s", path);
    return instance->file != NULL ? instance : NULL;
}

/* A key has its top bit set, so it is negative. The cache compares nothing else: packets with one
 * key are one flow. The low bits choose the bucket, so all bits should depend on all fields. */
static flow_key key_of(const struct flow_record* packet) {
    const uint64_t fields[] = {
        (uint64_t)packet->ipv4.srcipv4 << 32 | packet->ipv4.dstipv4,
        (uint64_t)packet->l4protocol << 32 | (uint32_t)packet->srcport << 16 | packet->dstport,
    };
    uint64_t hash = 0;
    for (int i = 0; i < 2; ++i) {
        hash = (hash ^ fields[i]) * UINT64_C(0x9E3779B97F4A7C15);
        hash ^= hash >> 32;
    }
    return (flow_key)(hash | UINT64_C(1) << 63);
}

/* Fills all of the record but its data space: what is not set would be left from another packet. */
static int parse(const char* line, struct flow_record* record) {
    char source[16], destination[16];
    uint8_t protocol;
    uint16_t source_port, destination_port;
    uint32_t bytes;
    struct in_addr from, to;
    const uint64_t now = timer_get_nsec();
    if (sscanf(line, "%15s %15s %" SCNu8 " %" SCNu16 " %" SCNu16 " %" SCNu32, source, destination,
               &protocol, &source_port, &destination_port, &bytes) != 6 ||
        inet_pton(AF_INET, source, &from) != 1 || inet_pton(AF_INET, destination, &to) != 1)
        return 0;
    *record = (struct flow_record){.start = now,
                                   .end = now,
                                   .packets = 1,
                                   .bytes = bytes,
                                   .ipv4 = {ntohl(from.s_addr), ntohl(to.s_addr), 0},
                                   .l3protocol = 4,
                                   .l4protocol = protocol,
                                   .srcport = source_port,
                                   .dstport = destination_port};
    return 1;
}

/* A key, or 0 when there is no packet. Called in a loop, so it waits a little when there is none.
 */
flow_key plugin_input_get_flow(void* instance, struct flow_record* record) {
    struct lines* self = instance;
    const struct timespec pause = {0, 10 * 1000 * 1000};
    char line[128];
    if (fgets(line, sizeof line, self->file) != NULL)
        return parse(line, record) ? key_of(record) : 0;
    if (!self->has_ended)
        verbose_msg(0, "lines: end of the file");
    self->has_ended = 1;
    nanosleep(&pause, NULL);
    return 0;
}
