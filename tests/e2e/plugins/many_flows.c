/* The input "many_flows": count finished flows of a known pattern, as fast as a collector on this
 * machine takes them, then nothing. Flow i, from 0, is one of six kinds in turn (TCP, UDP, ICMP
 * over IPv4, then TCP, UDP, ICMPv6 over IPv6), from 10.0.0.0 + i or 2001:db8::i, with 1 + i % 97
 * packets of 40 + i % 1400 bytes each; it lasted one second and ended now.
 *
 * A collector loses what does not fit into its socket: before every burst of flows (burst=N, 0 for
 * no waiting) the input waits until no UDP socket of its network namespace holds unread data. Says
 * "many_flows: delivered" after the last flow. Runs on the input's reader thread.
 */
#include <inttypes.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

enum { KINDS = 6 };

static struct {
    int32_t count, burst;
    uint32_t delivered;
} state = {.count = 100000, .burst = 400};

int32_t plugin_type = PLUGIN_KIND_INPUT;

const struct plugin_description* plugin_input_desc(void) {
    static const struct plugin_description description = {
        .name = "many_flows", .description = "Finished flows with known sums"};
    return &description;
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    const struct config_setting settings[] = {{"count", &state.count, CONFIG_INTEGER},
                                              {"burst", &state.burst, CONFIG_INTEGER},
                                              {NULL, NULL, 0}};
    (void)data_offset;
    return needs_packets == 0 && config_set_values(params, settings) == 0 ? &state : NULL;
}

static void pause_ms(long milliseconds) {
    const struct timespec pause = {.tv_sec = 0, .tv_nsec = milliseconds * 1000000L};
    nanosleep(&pause, NULL);
}

/* Whether a line of /proc/net/udp shows a socket with bytes in its receive queue. */
static bool holds_unread_data(const char* line) {
    unsigned long unread = 0;
    return sscanf(line, " %*u: %*[^ ] %*[^ ] %*x %*x:%lx", &unread) == 1 && unread > 0;
}

static bool is_a_collector_behind(void) {
    char line[256];
    bool is_behind = false;
    FILE* sockets = fopen("/proc/self/net/udp", "r");
    if (sockets == NULL)
        return false;
    while (!is_behind && fgets(line, sizeof line, sockets) != NULL)
        is_behind = holds_unread_data(line);
    fclose(sockets);
    return is_behind;
}

static void set_addresses(struct flow_record* record, uint32_t i) {
    static const uint8_t network[16] = {[15] = 0x20, [14] = 0x01, [13] = 0x0D, [12] = 0xB8};
    if (record->l3protocol == 4) {
        record->ipv4.srcipv4 = 0x0A000000 + i;
        record->ipv4.dstipv4 = 0xC0000201; /* 192.0.2.1 */
        record->ipv4.tos = 0;
    } else {
        memcpy(record->ipv6.srcipv6, network, sizeof network);
        memcpy(record->ipv6.srcipv6, &i, sizeof i); /* the address is a little-endian number */
        memcpy(record->ipv6.dstipv6, network, sizeof network);
    }
}

static void fill(struct flow_record* record, uint32_t i) {
    static const uint8_t protocols[KINDS] = {6, 17, 1, 6, 17, 58};
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    record->end = (uint64_t)now.tv_sec * UINT64_C(1000000000) + (uint64_t)now.tv_nsec;
    record->start = record->end - UINT64_C(1000000000);
    record->packets = 1 + i % 97;
    record->bytes = record->packets * (40 + i % 1400);
    record->l3protocol = i % KINDS < KINDS / 2 ? 4 : 6;
    record->l4protocol = protocols[i % KINDS];
    set_addresses(record, i);
    record->srcport = (uint16_t)(1024 + i % 60000);
    record->dstport = 443;
    record->tcpflags = record->l4protocol == 6 ? 0x1B : 0;
    record->icmptypecode = record->l3protocol == 4 ? 8 << 8 : 128 << 8;
}

flow_key plugin_input_get_final_flow(void* instance, struct flow_record* record) {
    const uint32_t i = state.delivered;
    (void)instance;
    if (i >= (uint32_t)state.count) {
        pause_ms(5);
        return -1;
    }
    while (state.burst > 0 && i % (uint32_t)state.burst == 0 && is_a_collector_behind())
        pause_ms(1);
    fill(record, i);
    if (++state.delivered == (uint32_t)state.count)
        verbose_msg(-1, "many_flows: delivered");
    return 0;
}
