/* An input with a clock of its own: four packets of two flows on the last day of 1999, A B A and,
 * twenty seconds after them, B; an ARP frame and calls that deliver nothing lie in between. */
#include <string.h>

#include "kestrelexp/plugin.h"

#ifdef FAILS
#define LAST_STATE INPUT_CLOCK_FAILED
#else
#define LAST_STATE INPUT_CLOCK_ENDED
#endif

#define BASE_TIME UINT64_C(946598400000000000)
#define SECOND UINT64_C(1000000000)

int32_t plugin_type = PLUGIN_KIND_INPUT;

struct delivery {
    uint32_t seconds;
    uint8_t source_port; /* 0: the frame is no flow */
};

static const struct delivery deliveries[] = {{0, 1}, {0, 2}, {1, 1}, {2, 0}, {20, 2}};
enum { DELIVERIES = sizeof deliveries / sizeof deliveries[0] };

static uint32_t calls;

const struct plugin_description* plugin_input_desc(void) {
    static const struct plugin_description description = {"replayed", "Packets of 1999", 0, 0};
    return &description;
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    (void)params, (void)needs_packets, (void)data_offset;
    return &calls;
}

/* Every second call delivers a frame. */
const uint8_t* plugin_input_get_packet(void* instance, struct packet_header* header) {
    static uint8_t frame[60];
    const uint32_t call = calls++;
    const struct delivery* now = &deliveries[call / 2];
    (void)instance;
    if (call % 2 == 0 || call / 2 >= DELIVERIES)
        return NULL;
    memset(frame, 0, sizeof frame);
    frame[12] = 0x08;
    frame[13] = now->source_port != 0 ? 0x00 : 0x06;
    frame[14] = 0x45;
    frame[17] = 40;
    frame[23] = 17;
    frame[35] = now->source_port;
    header->timestamp = BASE_TIME + now->seconds * SECOND;
    header->captured_length = header->wire_length = sizeof frame;
    header->input_interface = 11;
    header->output_interface = 12;
    return frame;
}

int plugin_input_clock(void* instance, uint64_t* now) {
    const uint32_t delivered = calls / 2;
    (void)instance;
    *now = BASE_TIME + (delivered == 0 ? 0 : deliveries[delivered - 1].seconds) * SECOND;
    return delivered == DELIVERIES ? LAST_STATE : INPUT_CLOCK_RUNS;
}
