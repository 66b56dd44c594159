/* An input that delivers packets as records with keys: five packets of two flows, A B A A B, one
 * millisecond apart, with calls in between that deliver nothing. Built with and without the frame
 * of each record. Times lie in the year 2100, so no flow grows idle while a test runs. */
#define _POSIX_C_SOURCE 200809L
#include <string.h>
#include <time.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

#define BASE_TIME UINT64_C(4102444800000000000)

int32_t plugin_type = PLUGIN_KIND_INPUT;

struct packet {
    int64_t key;
    uint16_t srcport;
    uint32_t bytes;
    uint8_t tcpflags;
};

static const struct packet packets[] = {
    {INT64_MIN + 1, 1111, 100, 0x02}, {INT64_MIN + 2, 2222, 50, 0x02},
    {INT64_MIN + 1, 1111, 200, 0x10}, {INT64_MIN + 1, 1111, 300, 0x01},
    {INT64_MIN + 2, 2222, 60, 0x10},
};
enum { PACKETS = sizeof packets / sizeof packets[0] };

static uint32_t calls;
static uint16_t area_offset;

const struct plugin_description* plugin_input_desc(void) {
    static const struct plugin_description description = {"flows", "Packets as records", 2, 0};
    return &description;
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    (void)params;
    area_offset = data_offset;
    verbose_msg(-1, "flows: needs packets %i, area at %i", needs_packets, data_offset);
    return &calls;
}

uint32_t plugin_input_sampling(void* instance) {
    (void)instance;
    return 0;
}

/* Every second call delivers a packet. */
flow_key plugin_input_get_flow(void* instance, struct flow_record* record) {
    const uint32_t call = calls++;
    const uint32_t number = call / 2;
    const uint16_t area = (uint16_t)(0xAB00 + number);
    (void)instance;
    if (call % 2 == 0)
        return 0;
    if (number >= PACKETS) {
        const struct timespec pause = {0, 5 * 1000 * 1000};
        nanosleep(&pause, NULL);
        if (number == PACKETS + 20) /* by now the switch has taken them all */
            verbose_msg(-1, "flows: all delivered");
        return number; /* any number that is not negative says: nothing */
    }
    record->start = record->end = BASE_TIME + number * UINT64_C(1000000);
    record->bytes = packets[number].bytes;
    record->inputsnmp = 1;
    record->outputsnmp = 2;
    record->ipv4.srcipv4 = 0x0A000001;
    record->ipv4.dstipv4 = 0x0A000002;
    record->ipv4.tos = 0;
    record->l3protocol = 4;
    record->l4protocol = 6;
    record->srcport = packets[number].srcport;
    record->dstport = 80;
    record->tcpflags = packets[number].tcpflags;
    record->icmptypecode = 0;
    record->sampling = 0;
    memcpy((uint8_t*)record + area_offset, &area, sizeof area);
    return packets[number].key;
}

#ifdef WITH_FRAMES
/* Frame n begins with the byte 0xF0 + n, has 60 + n bytes, 20 + n of them headers. */
const uint8_t* plugin_input_get_flow_packet(void* instance, uint32_t* captured_length,
                                            uint32_t* header_length) {
    static uint8_t frame[64 + PACKETS];
    const uint32_t number = (calls - 1) / 2;
    (void)instance;
    frame[0] = (uint8_t)(0xF0 + number);
    *captured_length = 60 + number;
    *header_length = 20 + number;
    return frame;
}
#endif
