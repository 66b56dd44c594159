/* Compiled filter rules: the tables that the built-in "filter" plugin makes of a rule file, and the
 * pieces that it is made of. Its entry points are in builtin.h. docs/filter-rules.md tells the
 * language.
 *
 * Addresses are as in the flow record: an IPv4 address is one host-order word; an IPv6 address is
 * four, word 0 the least significant. A range is a lower bound and a span (upper bound minus lower
 * bound); the span of an IPv6 range is taken word by word, without borrow.
 */
#ifndef KESTRELEXP_FILTER_H
#define KESTRELEXP_FILTER_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { FILTER_ADDRESS_WORDS = 4 };

struct fast4_entry {
    uint32_t src_low;
    uint32_t src_span;
    uint32_t dst_low;
    uint32_t dst_span;
    uint16_t negate; /* 1: the rule was written with "not" */
};

struct fast6_entry {
    uint32_t src_low[FILTER_ADDRESS_WORDS];
    uint32_t src_span[FILTER_ADDRESS_WORDS];
    uint32_t dst_low[FILTER_ADDRESS_WORDS];
    uint32_t dst_span[FILTER_ADDRESS_WORDS];
    uint32_t negate; /* only the low 16 bits count */
};

/* What a slow rule asks of a flow. */
enum filter_condition {
    FILTER_IPV4 = 0x0001,
    FILTER_IPV6 = 0x0002,
    FILTER_ADDRESS = 0x0004,
    FILTER_ADDRESS_EITHER = 0x0008, /* on either side */
    FILTER_PORT = 0x0010,
    FILTER_PORT_EITHER = 0x0020,
    FILTER_PROTO = 0x0040,
    FILTER_VLAN = 0x0200,
    FILTER_PHY = 0x0400,
    FILTER_BYTES = 0x0800,
    FILTER_PACKETS = 0x1000,
    FILTER_ANY = 0x2000
};

struct slow_rule {
    uint32_t mask; /* sum of enum filter_condition */
    uint32_t src_low[FILTER_ADDRESS_WORDS];
    uint32_t src_span[FILTER_ADDRESS_WORDS];
    uint32_t dst_low[FILTER_ADDRESS_WORDS];
    uint32_t dst_span[FILTER_ADDRESS_WORDS];
    uint16_t family; /* of the last address given: 4 or 6; 0 without one */
    uint16_t proto;
    uint16_t sport_low; /* also the range for either side */
    uint16_t sport_span;
    uint16_t dport_low;
    uint16_t dport_span;
    uint16_t phy_low;
    uint16_t phy_span;
    uint32_t packets_low;
    uint32_t packets_span;
    uint32_t bytes_low;
    uint32_t bytes_span;
    uint16_t vlan_low;
    uint16_t vlan_span;
    uint32_t negate; /* 1: the rule begins with "not" */
    char* text;      /* the whole line; the rule's own */
    uint32_t index;  /* position among the slow rules, from 0 */
};

/* One compiled rule file: the instance of the "filter" plugin. Never changes once it is made. */
struct filter_rules {
    struct slow_rule* slow;    /* in the order of the file */
    struct fast6_entry* fast6; /* sorted with fast6_compare */
    struct fast4_entry* fast4; /* sorted with fast4_compare */
    uint64_t slow_count;
    uint64_t fast6_count;
    uint64_t fast4_count;
};

/* Which end of a flow a value is meant for. A side set is a sum of the two single sides. */
enum filter_side { FILTER_SIDE_EITHER = 0, FILTER_SIDE_SOURCE = 1, FILTER_SIDE_DESTINATION = 2 };

/* Reads "HOST", "HOST/PREFIX" or "HOST-HOST" into lower and upper bounds
 * of FILTER_ADDRESS_WORDS words each, of which IPv4 writes the first. A source or destination value
 * goes to its own bounds and opens the others to any address when *side_set says that they hold
 * nothing yet; a value for either side goes to the source bounds. Adds to *side_set. Returns 4 or
 * 6; -1 after reporting a fault; 0 for a host that is neither IPv4 nor IPv6. */
KX_API int filter_parse_address(const char* value, int side, uint32_t* src_low, uint32_t* src_high,
                                uint32_t* dst_low, uint32_t* dst_high, uint32_t* side_set);

/* Read "N", "LOW-HIGH", "LOW-MAX" or, when services are allowed, the name of a service, into (low1,
 * high1) for the source, (low2, high2) for the destination, both for either side. A single side
 * sets the other pair to 0 and 65535 when *side_set says that it holds nothing yet. Numbers are cut
 * to the width of the bounds. Return 0, or -1 after reporting a fault. */
KX_API int filter_parse_range16(const char* value, int side, uint16_t* low1, uint16_t* high1,
                                uint16_t* low2, uint16_t* high2, uint32_t* side_set,
                                int allow_services);
KX_API int filter_parse_range32(const char* value, int side, uint32_t* low1, uint32_t* high1,
                                uint32_t* low2, uint32_t* high2, uint32_t* side_set,
                                int allow_services);

/* Orders of the fast tables, for qsort: pointers to two entries; negative, 0 or positive. */
KX_API int fast4_compare(const void* a, const void* b);
/* By the low half of the source, its high half, the low half of the destination, its high half. */
KX_API int fast6_compare(const void* a, const void* b);

/* The address test of slow IPv6 rules, on four words each: non-zero = inside. The halves are looked
 * at one by one; it is no range test of a 128-bit number. */
KX_API int filter_match_span128(const uint32_t* value, const uint32_t* base, const uint32_t* span);

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct fast4_entry) == 20);
KX_ASSERT_LAYOUT(offsetof(struct fast4_entry, negate) == 16);
KX_ASSERT_LAYOUT(sizeof(struct fast6_entry) == 68);
KX_ASSERT_LAYOUT(offsetof(struct fast6_entry, dst_low) == 32);
KX_ASSERT_LAYOUT(offsetof(struct fast6_entry, negate) == 64);
KX_ASSERT_LAYOUT(sizeof(struct slow_rule) == 128);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, dst_low) == 36);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, family) == 68);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, phy_low) == 80);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, packets_low) == 84);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, vlan_low) == 100);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, negate) == 104);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, text) == 112);
KX_ASSERT_LAYOUT(offsetof(struct slow_rule, index) == 120);
KX_ASSERT_LAYOUT(sizeof(struct filter_rules) == 48);
KX_ASSERT_LAYOUT(offsetof(struct filter_rules, slow_count) == 24);

#endif
