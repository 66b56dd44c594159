/* A process plugin. Its 8 bytes of each record: packets seen (4), reason of the flow's end (1), and
 * of the frame of the last packet the captured length, the header length and the first byte (1
 * each; 0 when it does not ask for frames). export_at=N has a flow exported at its N-th packet. */
#include <string.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

#ifdef NEEDS_PACKETS
#define FLAGS 1
#define NAME "frames"
#else
#define FLAGS 0
#define NAME "count"
#endif

int32_t plugin_type = PLUGIN_KIND_PROCESS;
#ifdef THREAD_SAFE
int32_t plugin_process_is_thread_safe = 1;
#endif

struct area {
    uint32_t packets;
    uint8_t reason;
    uint8_t captured_length;
    uint8_t header_length;
    uint8_t first_byte;
};

struct counter {
    int32_t export_at;
    uint16_t offset;
};

const struct plugin_description* plugin_process_desc(void) {
    static const struct plugin_description description = {NAME, "Counts packets",
                                                          sizeof(struct area), FLAGS};
    return &description;
}

void* plugin_process_init(char* params, uint16_t data_offset) {
    struct counter* counter = malloc_wrapper(sizeof *counter, 0);
    const struct config_setting settings[] = {{"export_at", &counter->export_at, CONFIG_INTEGER},
                                              {NULL, NULL, 0}};
    counter->offset = data_offset;
    return config_set_values(params, settings) == 0 ? counter : NULL;
}

static void get_counted(void* context, const struct flow_record* record, void* destination,
                        uint32_t length, uint32_t network_order, const struct getter* self) {
    const struct counter* counter = context;
    (void)self;
    record_universal_get(destination, record, counter->offset, 4, (int32_t)length, network_order);
}

void plugin_process_getter_init(void* instance, struct getter** table,
                                struct process_plugin* self) {
    const struct counter* counter = instance;
    if (self->data_offset != counter->offset || self->instance != instance)
        verbose_msg(-1, NAME ": the plugin record is not ours");
    getter_add(table, "COUNTED", 4, instance, record_valid_ok, __length_helper(4), get_counted);
}

static void note_frame(struct area* area) {
#ifdef NEEDS_PACKETS
    uint32_t captured_length = 0;
    uint32_t header_length = 0;
    const uint8_t* frame = get_packet_data(&captured_length, &header_length);
    area->captured_length = (uint8_t)captured_length;
    area->header_length = (uint8_t)header_length;
    area->first_byte = frame != NULL ? frame[0] : 0;
#else
    area->captured_length = area->header_length = area->first_byte = 0;
#endif
}

/* Counts one more packet in the area of flow. */
static void count_packet(const struct counter* counter, struct flow_record* flow,
                         uint32_t counted) {
    struct area area = {counted + 1, 0, 0, 0, 0};
    note_frame(&area);
    memcpy((uint8_t*)flow + counter->offset, &area, sizeof area);
    if (counter->export_at == (int32_t)area.packets)
        flow->export_flag = 1;
}

void plugin_process_create(void* instance, struct flow_record* packet) {
    count_packet(instance, packet, 0);
}

void plugin_process_update(void* instance, struct flow_record* flow, struct flow_record* packet) {
    const struct counter* counter = instance;
    uint32_t counted;
    (void)packet;
    memcpy(&counted, (const uint8_t*)flow + counter->offset, sizeof counted);
    count_packet(counter, flow, counted);
}

void plugin_process_release(void* instance, struct flow_record* flow, int32_t reason) {
    const struct counter* counter = instance;
    ((uint8_t*)flow)[counter->offset + offsetof(struct area, reason)] = (uint8_t)reason;
}
