/* The process plugin "end-reason": keeps why each flow ended, as the field END_REASON, a number
 * that the IPFIX element flowEndReason (136) has a meaning for. One byte of each record is its own,
 * and it is written once, when the flow ends. Keeps nothing else, so any thread may call it. */
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>

KX_API int32_t plugin_type = PLUGIN_KIND_PROCESS;
KX_API int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;
KX_API int32_t plugin_process_is_thread_safe = 1;

/* RFC 5102 section 5.11.3. The cache never takes TCP flags as the end of a flow, so there is no 3,
 * "end of flow detected". */
enum end_reason {
    END_IDLE_TIMEOUT = 1,
    END_ACTIVE_TIMEOUT = 2,
    END_FORCED = 4,
    END_LACK_OF_RESOURCES = 5
};

enum { AREA_SIZE = 1 }; /* bytes of every record that are ours */

struct instance {
    uint16_t offset; /* where it is */
};

const struct plugin_description* plugin_process_desc(void) {
    static const struct plugin_description description = {
        "end-reason", "Keeps why each flow ended (field END_REASON, IPFIX element 136)", AREA_SIZE,
        0};
    return &description;
}

void* plugin_process_init(char* params, uint16_t data_offset) {
    struct instance* self = malloc_wrapper(sizeof *self, 0);
    (void)params;
    self->offset = data_offset;
    return self;
}

static uint8_t end_reason_of(int32_t removal) {
    switch (removal) {
        case REMOVAL_ACTIVE:
            return END_ACTIVE_TIMEOUT;
        case REMOVAL_INACTIVE:
            return END_IDLE_TIMEOUT;
        case REMOVAL_COLLISION:
            return END_LACK_OF_RESOURCES;
        default: /* REMOVAL_FORCED, and what other plugins make up */
            return END_FORCED;
    }
}

void plugin_process_create(void* instance, struct flow_record* packet) {
    (void)instance;
    (void)packet;
}

void plugin_process_update(void* instance, struct flow_record* flow, struct flow_record* packet) {
    (void)instance;
    (void)flow;
    (void)packet;
}

void plugin_process_release(void* instance, struct flow_record* flow, int32_t reason) {
    const struct instance* self = instance;
    ((uint8_t*)flow)[self->offset] = end_reason_of(reason);
}

static void get_end_reason(void* context, const struct flow_record* record, void* destination,
                           uint32_t length, uint32_t network_order, const struct getter* getter) {
    const struct instance* self = context;
    (void)getter;
    record_universal_get(destination, record, self->offset, AREA_SIZE, (int32_t)length,
                         network_order);
}

void plugin_process_getter_init(void* instance, struct getter** table,
                                struct process_plugin* self) {
    (void)self;
    getter_add(table, "END_REASON", AREA_SIZE, instance, record_valid_ok,
               __length_helper(AREA_SIZE), get_end_reason);
}
