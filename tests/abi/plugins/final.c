/* An input of finished flows. Flow i of count (-I final:count=N), from 0:
 *   start (i + 1) s, end 0.5 s later, packets i + 1, bytes 100 * (i + 1), UDP,
 *   10.0.0.0 + i, port 1000 + i -> 192.0.2.1, port 53.
 * Times count from since=SECONDS; each flow takes every_ms=MILLISECONDS to come; with ipv6=1 the
 * addresses are 2001:db8::0 + i -> 2001:db8::ffff.
 * Built with TELLS_INTERFACES it samples at random, 1 in 50, and captures from interfaces=N: their
 * numbers are 1 to N, and one more for each flow that was delivered. Its flows carry sampling=RATE.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_INPUT;

static int32_t count = 3;
static int32_t since;
static int32_t every_ms;
static int32_t is_ipv6;
static int32_t interfaces;
static int32_t sampling = 50;
static int32_t delivered;

const struct plugin_description* plugin_input_desc(void) {
    static const struct plugin_description description = {"final", "Finished flows", 0, 0};
    return &description;
}

void* plugin_input_init(char* params, int needs_packets, uint16_t data_offset) {
    const struct config_setting settings[] = {{"count", &count, CONFIG_INTEGER},
                                              {"since", &since, CONFIG_INTEGER},
                                              {"every_ms", &every_ms, CONFIG_INTEGER},
                                              {"ipv6", &is_ipv6, CONFIG_INTEGER},
                                              {"interfaces", &interfaces, CONFIG_INTEGER},
                                              {"sampling", &sampling, CONFIG_INTEGER},
                                              {NULL, NULL, 0}};
    (void)data_offset;
    if (needs_packets != 0 || config_set_values(params, settings) != 0)
        return NULL;
    return &count;
}

void plugin_input_getter_init(void* instance, struct getter** table) {
    getter_add(table, "FINAL_NUMBER", 4, instance, record_valid_ok, record_length_4,
               record_get_packets);
}

/* What the program promises of a record that it hands out to be filled. */
static void check_prepared(const struct flow_record* record) {
    if (record->packets != 1 || record->bytes != 0 || record->tcpflags != 0 ||
        record->l3protocol != 0 || record->l4protocol != 0 || record->export_flag != 0)
        verbose_msg(-1, "final: the record is not prepared");
}

static void set_addresses(struct flow_record* record, uint32_t i) {
    static const uint8_t network[4] = {0xB8, 0x0D, 0x01, 0x20};
    record->l3protocol = is_ipv6 ? 6 : 4;
    if (!is_ipv6) {
        record->ipv4.srcipv4 = 0x0A000000 + i;
        record->ipv4.dstipv4 = 0xC0000201;
        record->ipv4.tos = 8;
        return;
    }
    memset(&record->ipv6, 0, sizeof record->ipv6);
    memcpy(record->ipv6.srcipv6, &i, sizeof i);
    memcpy(record->ipv6.srcipv6 + 12, network, sizeof network);
    memset(record->ipv6.dstipv6, 0xFF, 2);
    memcpy(record->ipv6.dstipv6 + 12, network, sizeof network);
}

static void pause_ms(long ms) {
    const struct timespec pause = {ms / 1000, ms % 1000 * 1000 * 1000};
    nanosleep(&pause, NULL);
}

flow_key plugin_input_get_final_flow(void* instance, struct flow_record* record) {
    const uint32_t i = (uint32_t)delivered;
    (void)instance;
    check_prepared(record);
    if (delivered == count) {
        pause_ms(5);
        record->packets = 77; /* nothing of this may show: the record was not delivered */
        return -1;
    }
    pause_ms(every_ms);
    ++delivered;
    record->start = (uint64_t)(since + (int64_t)i + 1) * UINT64_C(1000000000);
    record->end = record->start + 500000000;
    record->packets = i + 1;
    record->bytes = 100 * (i + 1);
    record->inputsnmp = 3;
    record->outputsnmp = 4;
    set_addresses(record, i);
    record->l4protocol = 17;
    record->srcport = (uint16_t)(1000 + i);
    record->dstport = 53;
    record->tcpflags = 0x12;
    record->icmptypecode = 0;
    record->export_flag = 9;
#ifdef TELLS_INTERFACES
    record->sampling = (uint16_t)sampling;
#else
    record->sampling = 0;
#endif
    return 0;
}

#ifdef TELLS_INTERFACES
int32_t plugin_contract_version = PLUGIN_CONTRACT_VERSION;
int32_t plugin_input_sampling_is_random = 1;

uint32_t plugin_input_sampling(void* instance) {
    (void)instance;
    return 50;
}

void plugin_input_interfaces(void* instance, input_interface_told_function* tell, void* context) {
    (void)instance;
    for (int32_t number = 1; number <= interfaces + delivered; ++number) {
        char name[32];
        snprintf(name, sizeof name, "port %i", (int)number);
        const struct input_interface told = {(uint32_t)number, name, "of the switch"};
        tell(context, &told);
    }
}
#endif

#ifdef TELLS_COUNTS
/* Twice as many frames passed over as flows were delivered, and a card that lost seven. */
void plugin_input_counters(void* instance, uint32_t queue, struct input_counts* counts) {
    (void)instance;
    if (queue != 0 || counts->is_up != 1 || counts->ring_dropped_packets != 0)
        abort(); /* not as promised */
    counts->ring_dropped_packets = UINT64_C(5000000000);
    counts->card_dropped_packets = 7;
    counts->sampled_out_packets = 2 * (uint64_t)delivered;
    counts->sampled_out_bytes = 100 * (uint64_t)delivered;
    counts->interface_changes = 3;
    counts->unread_packets = 11;
    counts->is_up = 0;
}
#endif
