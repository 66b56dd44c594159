/* The part of the "everything" plugin that calls the filter: its pieces one by one, then a whole
 * rule file. */
#define _POSIX_C_SOURCE 200809L
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "everything.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/filter.h"
#include "kestrelexp/record.h"

static void check_values(void) {
    uint32_t low[4] = {0, 0, 0, 0}, high[4] = {0, 0, 0, 0};
    uint32_t other_low[4] = {9, 9, 9, 9}, other_high[4] = {9, 9, 9, 9};
    uint32_t sides = 0;
    char address[] = "192.0.2.0/24";
    CHECK(filter_parse_address(address, FILTER_SIDE_SOURCE, low, high, other_low, other_high,
                               &sides) == 4);
    CHECK(low[0] == 0xC0000200 && high[0] == 0xC00002FF);
    CHECK(other_low[3] == 0 && other_high[3] == 0xFFFFFFFF);
    CHECK(sides == FILTER_SIDE_SOURCE);

    uint16_t first = 0, last = 0, other_first = 9, other_last = 9;
    char ports[] = "1024-MAX";
    sides = 0;
    CHECK(filter_parse_range16(ports, FILTER_SIDE_DESTINATION, &other_first, &other_last, &first,
                               &last, &sides, 1) == 0);
    CHECK(first == 1024 && last == 65535 && other_first == 0 && other_last == 65535);
    CHECK(sides == FILTER_SIDE_DESTINATION);

    uint32_t least = 0, most = 0;
    char bytes[] = "4294967295";
    CHECK(filter_parse_range32(bytes, FILTER_SIDE_EITHER, &least, &most, &least, &most, &sides,
                               0) == 0);
    CHECK(least == 0xFFFFFFFF && most == 0xFFFFFFFF);
}

static void check_orders(void) {
    struct fast4_entry four[2];
    struct fast6_entry six[2];
    const uint32_t value[4] = {7, 0, 0, 0};
    const uint32_t base[4] = {5, 0, 0, 0};
    const uint32_t span[4] = {2, 0, 0, 0};
    memset(four, 0, sizeof four);
    memset(six, 0, sizeof six);
    four[0].src_low = 2;
    four[1].src_low = 1;
    six[0].src_low[0] = 1;
    six[1].src_low[3] = 1;
    qsort(four, 2, sizeof four[0], fast4_compare);
    qsort(six, 2, sizeof six[0], fast6_compare);
    CHECK(four[0].src_low == 1);
    CHECK(six[0].src_low[3] == 1);
    CHECK(filter_match_span128(value, base, span) != 0);
    CHECK(filter_match_span128(base, value, span) == 0);
}

void check_rules(void) {
    char path[] = "/tmp/kestrel_everything_XXXXXX";
    static const char text[] = "fast src addr 10.0.0.0/8\nport 53\n";
    const int file = mkstemp(path);
    struct flow_record record;
    check_values();
    check_orders();
    CHECK(write(file, text, sizeof text - 1) == (ssize_t)(sizeof text - 1));
    CHECK(strcmp(filter_desc()->name, "filter") == 0);
    struct filter_rules* rules = filter_init(path, NULL);
    close(file);
    unlink(path);
    CHECK(rules != NULL);
    CHECK(rules->fast4_count == 1 && rules->fast6_count == 0 && rules->slow_count == 1);
    CHECK(rules->fast4[0].src_low == 0x0A000000 && rules->fast4[0].src_span == 0x00FFFFFF);
    CHECK(rules->slow[0].mask == (FILTER_PORT | FILTER_PORT_EITHER));
    CHECK(strcmp(rules->slow[0].text, "port 53") == 0);

    memset(&record, 0, sizeof record);
    record.l3protocol = 4;
    record.ipv4.srcipv4 = 0x0A000001;
    record.l4protocol = 17;
    record.dstport = 53;
    CHECK(filter_test(rules, &record) == 0);
    record.dstport = 54;
    CHECK(filter_test(rules, &record) == 1);
}
