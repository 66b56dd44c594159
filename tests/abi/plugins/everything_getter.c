/* Getter tables, and each accessor, length function and validity test with one record whose fields
 * all differ. */
#include <stdlib.h>
#include <string.h>

#include "everything.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/service.h"

#define SECOND UINT64_C(1000000000)

/* The program runs with -e vlan -e mpls -e mac: blocks at 88, 98 and 142, 154 bytes in all. */
enum { RECORD_SIZE = 154 };

static union {
    struct flow_record record;
    uint8_t bytes[RECORD_SIZE];
} sample;

static void fill_sample(uint8_t l3protocol, uint8_t l4protocol) {
    const struct vlan_block vlan = {{0x101, 0x102, 0x103, 0x104}, 4};
    struct mpls_block mpls = {{0}, 10, 0};
    const struct mac_block mac = {{1, 2, 3, 4, 5, 6}, {7, 8, 9, 10, 11, 12}};
    struct flow_record* r = &sample.record;

    for (uint32_t i = 0; i < MPLS_BLOCK_ENTRIES; ++i)
        mpls.entry[i] = 0xA0B0C0 + i;
    memset(&sample, 0, sizeof sample);
    r->start = timer_get_startup_time() + 7 * SECOND + 123456789;
    r->end = timer_get_startup_time() + 9 * SECOND + 987654321;
    r->packets = 0x01020304;
    r->bytes = 0x05060708;
    r->inputsnmp = 0x1112;
    r->outputsnmp = 0x1314;
    r->l3protocol = l3protocol;
    r->l4protocol = l4protocol;
    if (l3protocol == 4) {
        r->ipv4.srcipv4 = 0xC0000201;
        r->ipv4.dstipv4 = 0xC0000202;
        r->ipv4.tos = 0x2E;
    } else {
        for (uint8_t i = 0; i < 16; ++i) {
            r->ipv6.srcipv6[i] = i;
            r->ipv6.dstipv6[i] = (uint8_t)(0x20 + i);
        }
    }
    r->srcport = 0x1516;
    r->dstport = 0x1718;
    r->tcpflags = 0x19;
    r->icmptypecode = 0x0800;
    r->sampling = 0x1A1B;
    memcpy(sample.bytes + kestrel_vlan_offset, &vlan, sizeof vlan);
    memcpy(sample.bytes + kestrel_mpls_offset, &mpls, sizeof mpls);
    memcpy(sample.bytes + kestrel_mac_offset, &mac, sizeof mac);
}

/* The field as a number of 8 bytes in network order. */
static uint64_t number(getter_get_function* get) {
    uint8_t bytes[8];
    uint64_t value = 0;
    memset(bytes, 0xEE, sizeof bytes);
    get(NULL, &sample.record, bytes, sizeof bytes, 1, NULL);
    for (int i = 0; i < 8; ++i)
        value = value << 8 | bytes[i];
    return value;
}

/* Whether the field, read at its own length in network order, is these bytes. */
static int is_bytes(getter_get_function* get, uint32_t length, const char* expected) {
    char bytes[16];
    get(NULL, &sample.record, bytes, length, 1, NULL);
    return memcmp(bytes, expected, length) == 0;
}

static void check_numbers(void) {
    const uint64_t start = sample.record.start;
    const uint64_t end = sample.record.end;
    const uint64_t startup = timer_get_startup_time();
    CHECK(number(record_get_zero) == 0);
    CHECK(number(record_get_bytes) == 0x05060708);
    CHECK(number(record_get_packets) == 0x01020304);
    CHECK(number(record_get_startup_time_sec) == startup / SECOND);
    CHECK(number(record_get_startup_time_msec) == startup / 1000000);
    CHECK(number(record_get_startup_time_usec) == startup / 1000);
    CHECK(number(record_get_startup_time_nsec) == startup);
    CHECK(number(record_get_start_sec) == start / SECOND);
    CHECK(number(record_get_start_msec) == start / 1000000);
    CHECK(number(record_get_start_usec) == start / 1000);
    CHECK(number(record_get_start_nsec) == start);
    CHECK(number(record_get_end_sec) == 9); /* since the start-up, unlike the next three */
    CHECK(number(record_get_end_msec) == end / 1000000);
    CHECK(number(record_get_end_usec) == end / 1000);
    CHECK(number(record_get_end_nsec) == end);
    CHECK(number(record_get_relative_start_sec) == 7);
    CHECK(number(record_get_relative_start_msec) == 7123);
    CHECK(number(record_get_relative_start_usec) == 7123456);
    CHECK(number(record_get_relative_start_nsec) == 7123456789);
    CHECK(number(record_get_relative_end_sec) == 9);
    CHECK(number(record_get_relative_end_msec) == 9987);
    CHECK(number(record_get_relative_end_usec) == 9987654);
    CHECK(number(record_get_relative_end_nsec) == 9987654321);
    CHECK(number(record_get_sampling) == 0x1A1B);
    CHECK(number(record_get_sampling_algorithm) == 1);
    CHECK(number(record_get_inputsnmp) == 0x1112);
    CHECK(number(record_get_outputsnmp) == 0x1314);
    CHECK(number(record_get_vlan0) == 0x101);
    CHECK(number(record_get_vlan1) == 0x102);
    CHECK(number(record_get_vlan2) == 0x103);
    CHECK(number(record_get_vlan3) == 0x104);
    CHECK(number(record_get_srcmac) == 0x010203040506);
    CHECK(number(record_get_dstmac) == 0x0708090A0B0C);
    CHECK(number(record_get_l3protocol) == 4);
    CHECK(number(record_get_srcipv4) == 0xC0000201);
    CHECK(number(record_get_dstipv4) == 0xC0000202);
    CHECK(number(record_get_tos) == 0x2E);
    CHECK(number(record_get_l4protocol) == 6);
    CHECK(number(record_get_tcpflags) == 0x19);
    CHECK(number(record_get_srcport) == 0x1516);
    CHECK(number(record_get_dstport) == 0x1718);
    CHECK(number(record_get_icmptypecode) == 0x0800);
}

static void check_labels(void) { /* the low three bytes as they are stored */
    CHECK(is_bytes(record_get_mpls0, 3, "\xC0\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls1, 3, "\xC1\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls2, 3, "\xC2\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls3, 3, "\xC3\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls4, 3, "\xC4\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls5, 3, "\xC5\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls6, 3, "\xC6\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls7, 3, "\xC7\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls8, 3, "\xC8\xB0\xA0"));
    CHECK(is_bytes(record_get_mpls9, 3, "\xC9\xB0\xA0"));
}

static int says(getter_valid_function* valid) {
    return valid(NULL, &sample.record) != 0;
}

static void check_validity(void) {
    fill_sample(4, 6);
    CHECK(says(record_valid_ok) && says(record_ipv4_ok) && says(record_tcp_ok));
    CHECK(says(record_ports_ok) && says(record_mac_ok));
    CHECK(!says(record_ipv6_ok) && !says(record_icmp_ok));
    CHECK(says(record_vlan0_ok) && says(record_vlan1_ok));
    CHECK(says(record_vlan2_ok) && says(record_vlan3_ok));
    CHECK(says(record_mpls0_ok) && says(record_mpls1_ok) && says(record_mpls2_ok));
    CHECK(says(record_mpls3_ok) && says(record_mpls4_ok) && says(record_mpls5_ok));
    CHECK(says(record_mpls6_ok) && says(record_mpls7_ok));
    CHECK(says(record_mpls8_ok) && says(record_mpls9_ok));
    fill_sample(6, 58);
    CHECK(says(record_ipv6_ok) && says(record_icmp_ok));
    CHECK(!says(record_ipv4_ok) && !says(record_tcp_ok) && !says(record_ports_ok));
    CHECK(is_bytes(record_get_srcipv6, 16,
                   "\x0F\x0E\x0D\x0C\x0B\x0A\x09\x08\x07\x06\x05\x04"
                   "\x03\x02\x01\x00"));
    CHECK(is_bytes(record_get_dstipv6, 16,
                   "\x2F\x2E\x2D\x2C\x2B\x2A\x29\x28\x27\x26\x25\x24"
                   "\x23\x22\x21\x20"));
}

void check_accessors(void) {
    CHECK(kestrel_vlan_offset == 88);
    CHECK(kestrel_mpls_offset == 98);
    CHECK(kestrel_mac_offset == 142);
    fill_sample(4, 6);
    check_numbers();
    check_labels();
    record_print(-1, &sample.record);
    check_validity();
}

static uint32_t entries_of(const struct getter* table) {
    uint32_t count = 0;
    while (table[count].name != NULL)
        ++count;
    return count;
}

void check_getters(void) {
    CHECK(record_length_1() == 1 && record_length_2() == 2 && record_length_3() == 3);
    CHECK(record_length_4() == 4 && record_length_6() == 6 && record_length_8() == 8);
    CHECK(record_length_16() == 16);
    CHECK(__length_helper(6) == record_length_6);

    struct getter* base = getter_base_init();
    CHECK(entries_of(base) == 54);
    CHECK(getter_bitmap_from_list(base) == (UINT64_C(1) << 54) - 1);

    struct getter* table = NULL;
    getter_copy_to(&table, getter_by_name(base, "L4_PORT_DST"));
    CHECK(entries_of(table) == 1 && table[0].index == 42);
    CHECK(table[1].length == 0xFFFFFFFF);
    getter_add(&table, "MINE", 4, NULL, record_valid_ok, record_length_4, record_get_bytes);
    CHECK(table[1].index == 1 && table[1].get == record_get_bytes);
    CHECK(getter_bitmap_from_list(table) == (UINT64_C(1) << 42 | 2));
    fill_sample(4, 1); /* ICMP has no ports */
    CHECK(getter_bitmap_from_record(table, &sample.record) == 2);

    struct getter* copy = NULL;
    getter_copy_list(&copy, base);
    CHECK(entries_of(copy) == 54 && copy[53].index == 53);
    free(copy);
    free(table);
    free(base);

    uint8_t wide[4] = {9, 9, 9, 9};
    const uint16_t port = 0x0102;
    record_universal_get(wide, &port, 0, 2, 4, 1);
    CHECK(memcmp(wide, "\0\0\1\2", 4) == 0);
}
