/* A plugin of any kinds with any of its entry points left out, to see what the loader makes of good
 * and broken objects. It is built once for each row of the table in CMakeLists.txt; a row names the
 * entry points that the object has. */
#include "kestrelexp/plugin.h"

#ifndef NAME
#define NAME "variant"
#endif
#ifndef DATA_SIZE
#define DATA_SIZE 0
#endif
#ifndef FLAGS
#define FLAGS 0
#endif
#ifdef INIT_FAILS
#define INSTANCE ((void*)0)
#else
#define INSTANCE ((void*)1)
#endif

const struct plugin_description description = {NAME, "built for a test", DATA_SIZE, FLAGS};

#ifdef PLUGIN_TYPE
int32_t plugin_type = PLUGIN_TYPE;
#endif

#ifdef CONTRACT_VERSION
int32_t plugin_contract_version = CONTRACT_VERSION;
#endif

/* ---- input */

#ifdef INPUT_DESC
const struct plugin_description* plugin_input_desc(void) {
    return &description;
}
#endif
#ifdef INPUT_INIT
void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    (void)params, (void)needs_packets, (void)data_offset;
    return INSTANCE;
}
#endif
#ifdef INPUT_GET_PACKET
const uint8_t* plugin_input_get_packet(void* instance, struct packet_header* header) {
    (void)instance, (void)header;
    return NULL;
}
#endif
#ifdef INPUT_GET_FLOW
flow_key plugin_input_get_flow(void* instance, struct flow_record* record) {
    (void)instance, (void)record;
    return 0;
}
#endif
#ifdef INPUT_GET_FLOW_PACKET
const uint8_t* plugin_input_get_flow_packet(void* instance, uint32_t* captured_length,
                                            uint32_t* header_length) {
    (void)instance, (void)captured_length, (void)header_length;
    return NULL;
}
#endif
#ifdef INPUT_GET_FINAL_FLOW
flow_key plugin_input_get_final_flow(void* instance, struct flow_record* record) {
    (void)instance, (void)record;
    return -1;
}
#endif

#ifdef INPUT_CLOCK
int plugin_input_clock(void* instance, uint64_t* now) {
    (void)instance;
    *now = 0;
    return 1;
}
#endif

/* ---- export */

#ifdef EXPORT_DESC
const struct plugin_description* plugin_export_desc(void) {
    return &description;
}
#endif
#ifdef EXPORT_INIT
void* plugin_export_init(char* params, struct getter* getters) {
    (void)params, (void)getters;
    return INSTANCE;
}
#endif
#ifdef EXPORT_EXPORT
uint32_t plugin_export_export(void* instance, struct flow_record* record) {
    (void)instance, (void)record;
    return 0;
}
#endif
#ifdef EXPORT_FLUSH
uint32_t plugin_export_flush(void* instance) {
    (void)instance;
    return 0;
}
#endif

/* ---- filter */

#ifdef FILTER_DESC
const struct plugin_description* plugin_filter_desc(void) {
    return &description;
}
#endif
#ifdef FILTER_INIT
void* plugin_filter_init(char* params, struct getter** getters) {
    (void)params, (void)getters;
    return INSTANCE;
}
#endif
#ifdef FILTER_FILTER
int32_t plugin_filter_filter(void* instance, struct flow_record* record) {
    (void)instance, (void)record;
    return 0;
}
#endif

/* ---- process */

#ifdef PROCESS_DESC
const struct plugin_description* plugin_process_desc(void) {
    return &description;
}
#endif
#ifdef PROCESS_INIT
void* plugin_process_init(char* params, uint16_t data_offset) {
    (void)params, (void)data_offset;
    return INSTANCE;
}
#endif
#ifdef PROCESS_CREATE
void plugin_process_create(void* instance, struct flow_record* packet) {
    (void)instance, (void)packet;
}
#endif
#ifdef PROCESS_UPDATE
void plugin_process_update(void* instance, struct flow_record* flow, struct flow_record* packet) {
    (void)instance, (void)flow, (void)packet;
}
#endif
#ifdef PROCESS_RELEASE
void plugin_process_release(void* instance, struct flow_record* flow, int32_t reason) {
    (void)instance, (void)flow, (void)reason;
}
#endif
