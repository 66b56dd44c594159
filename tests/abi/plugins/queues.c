/* An input with queues that gives batches: packet i of `packets` belongs to flow i * 7919 modulo
 * `flows`, and a flow f to queue f modulo `lanes`. Frames of 60 bytes with a datagram of 46 from
 * 10.0.x.y port 1000 + f, one microsecond apart in the year 2100, so that no flow grows idle while
 * a test runs. Every 100th packet is an ARP frame instead. answer=N is what it says of its queues
 * where that is not the number of lanes. tell=1 has it say so when it is asked for its counts. */
#define _POSIX_C_SOURCE 200809L
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

#define BASE_TIME UINT64_C(4102444800000000000)

enum { FRAME = 60, BATCH = 64, STEP = 7919, NO_FLOW_EVERY = 100 };

int32_t plugin_type = PLUGIN_KIND_INPUT;
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;

struct queue {
    uint32_t next; /* packet to look at */
    uint32_t calls;
    uint64_t passed_over;
    uint8_t frames[BATCH][FRAME];
};

struct input {
    int32_t lanes;
    int32_t packets;
    int32_t flows;
    int32_t answer;
    int32_t tell;
    int is_asked;
    struct queue queues[INPUT_QUEUES_LIMIT];
};

const struct plugin_description* plugin_input_desc(void) {
    static const struct plugin_description description = {"queues", "Batches", 0, 0};
    return &description;
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    struct input* input = malloc_wrapper(sizeof *input, 1);
    (void)needs_packets, (void)data_offset;
    input->lanes = 1;
    input->packets = 1000;
    input->flows = 50;
    input->answer = -1;
    input->tell = 0;
    const struct config_setting settings[] = {
        {"lanes", &input->lanes, CONFIG_INTEGER}, {"packets", &input->packets, CONFIG_INTEGER},
        {"flows", &input->flows, CONFIG_INTEGER}, {"answer", &input->answer, CONFIG_INTEGER},
        {"tell", &input->tell, CONFIG_INTEGER},   {NULL, NULL, 0},
    };
    return config_set_values(params, settings) == 0 ? input : NULL;
}

uint32_t plugin_input_sampling(void* instance) {
    (void)instance;
    return 100;
}

uint32_t plugin_input_queues(void* instance) {
    struct input* input = instance;
    input->is_asked = 1;
    return (uint32_t)(input->answer >= 0 ? input->answer : input->lanes);
}

static void make_frame(uint8_t* frame, uint32_t packet, uint32_t flow) {
    memset(frame, 0, FRAME);
    frame[12] = 0x08;
    frame[13] = packet % NO_FLOW_EVERY == NO_FLOW_EVERY - 1 ? 0x06 : 0x00;
    frame[14] = 0x45;
    frame[17] = FRAME - 14;
    frame[23] = 17;
    frame[26] = 10;
    frame[28] = (uint8_t)(flow >> 8);
    frame[29] = (uint8_t)flow;
    memcpy(frame + 30, "\xC0\x00\x02\x01", 4);
    frame[34] = (uint8_t)((1000 + flow) >> 8);
    frame[35] = (uint8_t)(1000 + flow);
    frame[37] = 53;
}

/* Batches of 1 to 50 frames. */
uint32_t plugin_input_get_batch(void* instance, uint32_t number, struct input_frame* frames,
                                uint32_t limit) {
    struct input* input = instance;
    struct queue* queue = &input->queues[number];
    const uint32_t lanes = input->is_asked ? (uint32_t)input->lanes : 1;
    const uint32_t wanted = 1 + queue->calls++ % 50;
    uint32_t given = 0;
    if (frames[0].header.wire_length != 0 || limit == 0)
        abort(); /* not as promised */
    while (given < wanted && given < limit && given < BATCH &&
           queue->next < (uint32_t)input->packets) {
        const uint32_t packet = queue->next++;
        const uint32_t flow = (uint32_t)((uint64_t)packet * STEP % (uint64_t)input->flows);
        if (flow % lanes != number)
            continue;
        make_frame(queue->frames[given], packet, flow);
        frames[given].data = queue->frames[given];
        frames[given].header.timestamp = BASE_TIME + packet * UINT64_C(1000);
        frames[given].header.captured_length = FRAME;
        frames[given].header.wire_length = FRAME;
        frames[given].header.input_interface = 7;
        frames[given].header.output_interface = 8;
        ++given;
    }
    if (given == 0) {
        const struct timespec pause = {0, 5 * 1000 * 1000};
        if (queue->next == (uint32_t)input->packets) {
            ++queue->next; /* once */
            verbose_msg(-1, "queues: %u is empty", number);
        }
        nanosleep(&pause, NULL);
    }
    return given;
}

void plugin_input_counters(void* instance, uint32_t queue, struct input_counts* counts) {
    const struct input* input = instance;
    if (input->tell)
        verbose_msg(-1, "queues: %u is counted", queue);
    counts->ring_dropped_packets = 10 + queue;
}
