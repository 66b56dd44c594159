/* An export to begin with: "csv" writes one line for each flow to standard output.
 *
 *     kestrelexp -X af-packet.so,./csv.so -I af-packet:device=eth0 -E csv: > flows.csv
 *     kestrelexp -X af-packet.so,./csv.so -I af-packet:device=eth0 \
 *         -E csv:field=L4_TCP_FLAGS > flows.csv
 *
 * Runs on the main thread alone.
 */
#include <arpa/inet.h>
#include <inttypes.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <stdio.h>

KX_API int32_t plugin_type = PLUGIN_KIND_EXPORT;

struct csv {
    const struct getter* field; /* of one more column, or NULL */
};

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {
        "csv",
        "Writes flows to standard output as comma-separated values.\n"
        "Parameters:\n"
        " field=name (one more column; a field of at most 8 bytes)",
        0, 0};
    return &description;
}

/* getters is the table of this export: the fields of the program and of every plugin before it. */
void* plugin_export_init(char* params, struct getter* getters) {
    struct csv* instance = malloc_wrapper(sizeof *instance, 0);
    char* name = NULL;
    const struct config_setting settings[] = {
        {"field", &name, CONFIG_STRING},
        {NULL, NULL, 0},
    };
    if (config_set_values(params, settings) != 0)
        return NULL;
    if (name != NULL) {
        instance->field = getter_by_name(getters, name);
        if (instance->field == NULL || instance->field->length > sizeof(uint64_t)) {
            verbose_msg(-1, "csv: no number with the name %s", name);
            return NULL;
        }
    }
    printf("source,destination,protocol,source_port,destination_port,packets,bytes%s%s\n",
           name != NULL ? "," : "", name != NULL ? name : "");
    return instance;
}

/* IPv6 addresses are 128-bit little-endian numbers in a record: the bytes of the wire, reversed. */
static void format_ipv6(const uint8_t* reversed, char* text) {
    uint8_t address[16];
    for (int i = 0; i < 16; ++i)
        address[i] = reversed[15 - i];
    inet_ntop(AF_INET6, address, text, INET6_ADDRSTRLEN);
}

static void format_ipv4(uint32_t number, char* text) {
    const uint32_t address = htonl(number);
    inet_ntop(AF_INET, &address, text, INET6_ADDRSTRLEN);
}

uint32_t plugin_export_export(void* instance, struct flow_record* flow) {
    const struct csv* self = instance;
    char source[INET6_ADDRSTRLEN], destination[INET6_ADDRSTRLEN];
    if (flow->l3protocol == 4) {
        format_ipv4(flow->ipv4.srcipv4, source);
        format_ipv4(flow->ipv4.dstipv4, destination);
    } else {
        format_ipv6(flow->ipv6.srcipv6, source);
        format_ipv6(flow->ipv6.dstipv6, destination);
    }
    printf("%s,%s,%u,%u,%u,%" PRIu32 ",%" PRIu32, source, destination, flow->l4protocol,
           flow->srcport, flow->dstport, flow->packets, flow->bytes);
    if (self->field != NULL) {
        uint64_t value = 0;
        self->field->get(self->field->context, flow, &value, sizeof value, 0, self->field);
        printf(",%" PRIu64, value);
    }
    putchar('\n');
    return 0; /* 0xFFFFFFFF would say that the flow was not exported */
}

/* Traffic has stopped for a while, or the program ends. */
uint32_t plugin_export_flush(void* instance) {
    (void)instance;
    return fflush(stdout) == 0 ? 0 : 0xFFFFFFFF;
}
