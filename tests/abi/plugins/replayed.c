/* An input with a clock of its own: four packets of two flows on the last day of 1999, A B A and,
 * twenty seconds after them, B; an ARP frame and calls that deliver nothing lie in between. With
 * BATCHES it has them by references, as many as there are up to the next pause. */
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

static void make_frame(const struct delivery* now, uint8_t frame[60],
                       struct packet_header* header) {
    memset(frame, 0, 60);
    frame[12] = 0x08;
    frame[13] = now->source_port != 0 ? 0x00 : 0x06;
    frame[14] = 0x45;
    frame[17] = 40;
    frame[23] = 17;
    frame[35] = now->source_port;
    header->timestamp = BASE_TIME + now->seconds * SECOND;
    header->captured_length = header->wire_length = 60;
    header->input_interface = 11;
    header->output_interface = 12;
}

#ifdef BATCHES

/* Every second call delivers frames, two at most; each counts for two calls. */
uint32_t plugin_input_get_batch(void* instance, uint32_t queue, struct input_frame* frames,
                                uint32_t limit) {
    static uint8_t bytes[2][60];
    static int has_paused;
    uint32_t count;
    (void)instance;
    if (queue != 0 || limit == 0 || (has_paused = !has_paused))
        return 0;
    for (count = 0; count < limit && count < 2 && calls / 2 < DELIVERIES; ++count, calls += 2) {
        make_frame(&deliveries[calls / 2], bytes[count], &frames[count].header);
        frames[count].data = bytes[count];
    }
    return count;
}

#else

/* Every second call delivers a frame. */
const uint8_t* plugin_input_get_packet(void* instance, struct packet_header* header) {
    static uint8_t frame[60];
    const uint32_t call = calls++;
    (void)instance;
    if (call % 2 == 0 || call / 2 >= DELIVERIES)
        return NULL;
    make_frame(&deliveries[call / 2], frame, header);
    return frame;
}

#endif

int plugin_input_clock(void* instance, uint64_t* now) {
    const uint32_t delivered = calls / 2;
    (void)instance;
    *now = BASE_TIME + (delivered == 0 ? 0 : deliveries[delivered - 1].seconds) * SECOND;
    return delivered == DELIVERIES ? LAST_STATE : INPUT_CLOCK_RUNS;
}
