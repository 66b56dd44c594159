/* A process plugin to begin with: "largest" keeps the length of each flow's largest packet, and
 * offers it to templates and exports as the field LARGEST_PACKET.
 *
 *     kestrelexp -X af-packet.so,./largest.so,./csv.so -I af-packet:device=eth0 -P largest: \
 *         -E csv:field=LARGEST_PACKET
 *
 * create, update and release run for every packet, under the lock of the flow cache: they are
 * short, allocate nothing and never wait.
 */
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <string.h>

KX_API int32_t plugin_type = PLUGIN_KIND_PROCESS;

enum { AREA_SIZE = 4 }; /* bytes of every record that are ours: one number */

struct largest {
    uint16_t offset; /* where they are */
};

const struct plugin_description* plugin_process_desc(void) {
    static const struct plugin_description description = {
        "largest", "Keeps the length of each flow's largest packet (field LARGEST_PACKET)",
        AREA_SIZE, 0};
    return &description;
}

void* plugin_process_init(char* params, uint16_t data_offset) {
    struct largest* instance = malloc_wrapper(sizeof *instance, 0);
    (void)params;
    instance->offset = data_offset;
    return instance;
}

/* The area lies at any offset, so its number is read and written byte by byte. */
static uint32_t load(const struct largest* self, const struct flow_record* record) {
    uint32_t length;
    memcpy(&length, (const uint8_t*)record + self->offset, sizeof length);
    return length;
}

static void store(const struct largest* self, struct flow_record* record, uint32_t length) {
    memcpy((uint8_t*)record + self->offset, &length, sizeof length);
}

/* A packet starts a flow: its record becomes the flow's. */
void plugin_process_create(void* instance, struct flow_record* packet) {
    store(instance, packet, packet->bytes);
}

/* A packet joins a flow. */
void plugin_process_update(void* instance, struct flow_record* flow, struct flow_record* packet) {
    if (packet->bytes > load(instance, flow))
        store(instance, flow, packet->bytes);
}

void plugin_process_release(void* instance, struct flow_record* flow, int32_t reason) {
    (void)instance;
    (void)flow;
    (void)reason; /* enum removal_reason: why the flow ends */
}

static void get_largest(void* context, const struct flow_record* record, void* destination,
                        uint32_t length, uint32_t network_order, const struct getter* getter) {
    const struct largest* self = context;
    (void)getter;
    record_universal_get(destination, record, self->offset, AREA_SIZE, (int32_t)length,
                         network_order);
}

void plugin_process_getter_init(void* instance, struct getter** table,
                                struct process_plugin* self) {
    (void)self;
    getter_add(table, "LARGEST_PACKET", AREA_SIZE, instance, record_valid_ok,
               __length_helper(AREA_SIZE), get_largest);
}
