/* A process plugin that needs packets and writes down what get_packet_data shows it: "create",
 * "update" or "release", captured length, header length, and the frame in hexadecimal digits ("-"
 * for none). params: the file. FRAME_LOG_PAUSE_US in the environment slows each packet down. */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_PROCESS;
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;

static long pause_ns;

const struct plugin_description* plugin_process_desc(void) {
    static const struct plugin_description description = {
        "frame_log", "Writes the frame of each packet to a file", 0, 1};
    return &description;
}

void* plugin_process_init(char* params, uint16_t data_offset) {
    const char* pause_us = getenv("FRAME_LOG_PAUSE_US");
    FILE* file = params ? fopen(params, "w") : NULL;
    (void)data_offset;
    if (file)
        setvbuf(file, NULL, _IOLBF, 1 << 16);
    pause_ns = pause_us ? 1000 * atol(pause_us) : 0;
    return file;
}

static void note(FILE* file, const char* event) {
    uint32_t captured_length = 0;
    uint32_t header_length = 0;
    const uint8_t* frame = get_packet_data(&captured_length, &header_length);
    if (!frame) {
        fprintf(file, "%s %u %u -\n", event, captured_length, header_length);
        return;
    }
    char* digits = str2hexa(frame, captured_length);
    fprintf(file, "%s %u %u %s\n", event, captured_length, header_length, digits);
    free(digits);
}

static void note_packet(FILE* file, const char* event) {
    const struct timespec pause = {0, pause_ns};
    note(file, event);
    if (pause_ns)
        nanosleep(&pause, NULL);
}

void plugin_process_create(void* instance, struct flow_record* packet) {
    (void)packet;
    note_packet(instance, "create");
}

void plugin_process_update(void* instance, struct flow_record* flow, struct flow_record* packet) {
    (void)flow;
    (void)packet;
    note_packet(instance, "update");
}

void plugin_process_release(void* instance, struct flow_record* flow, int32_t reason) {
    (void)flow;
    (void)reason;
    note(instance, "release");
}
