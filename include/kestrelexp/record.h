/* The flow record: the one data type that input drivers, the flow cache, filters, process plugins
 * and exporters exchange. Its layout is a binary interface; nothing in it ever moves.
 *
 * A record is a base part of 88 bytes followed by the data space: the optional VLAN, MPLS and MAC
 * blocks that the operator switched on with -e, and the areas that input and process plugins asked
 * for, each appended in command-line order. The whole is always copied as one block.
 *
 * Times are nanoseconds since the Unix epoch; numbers are in host byte order unless said otherwise.
 */
#ifndef KESTRELEXP_RECORD_H
#define KESTRELEXP_RECORD_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of the base part, and with it the offset of the data space. */
enum { FLOW_RECORD_BASE_SIZE = 88 };

/* IPv4 view of the address bytes. Addresses are host-order numbers: 192.0.2.1 is 0xC0000201. */
struct flow_ipv4 {
    uint32_t srcipv4;
    uint32_t dstipv4;
    uint8_t tos; /* type-of-service byte, RFC 791 section 3.1 */
};

/* IPv6 view of the address bytes: each address is a 128-bit little-endian number, that is the 16
 * wire bytes in reverse order. The IPv6 traffic class is not kept. */
struct flow_ipv6 {
    uint8_t srcipv6[16];
    uint8_t dstipv6[16];
};

struct flow_record {
    uint64_t start;     /* time of the first packet, ns */
    uint64_t end;       /* time of the last packet, ns */
    uint32_t packets;   /* 1 in a freshly parsed packet record */
    uint32_t bytes;     /* sum of IP lengths: IPv4 total length, or IPv6 payload length + 40 */
    uint16_t inputsnmp; /* input interface number */
    uint16_t outputsnmp;
    uint8_t reserved_28[4];
    union { /* valid by l3protocol: ipv4 when 4, ipv6 when 6 */
        struct flow_ipv4 ipv4;
        struct flow_ipv6 ipv6;
    };
    uint8_t l3protocol; /* IP version, 4 or 6; 0 until parsed */
    uint8_t reserved_65[7];
    uint8_t l4protocol; /* IPv4 protocol, or the IPv6 next header left after extension headers */
    uint8_t reserved_73;
    uint16_t srcport; /* the first two 16-bit words of the transport header, whatever the */
    uint16_t dstport; /* protocol; both 0 for IPv4 fragments */
    uint8_t tcpflags; /* OR over all packets of the flow */
    uint8_t reserved_79;
    uint16_t icmptypecode; /* type * 256 + code; meaningful for protocols 1 and 58 only */
    uint16_t export_flag;  /* a process plugin sets it non-zero to have the flow exported at once */
    uint16_t sampling;     /* 1-in-N rate of the input driver, 0 = not sampled */
    uint8_t reserved_86[2];
    /* data space follows */
};

/* Blocks of the data space. They may stand at any offset, so they are packed: read them through
 * these types (or memcpy), never through a pointer to a wider type. */
enum { VLAN_BLOCK_IDS = 4, MPLS_BLOCK_ENTRIES = 10 };

struct vlan_block {
    uint16_t id[VLAN_BLOCK_IDS]; /* 12-bit VLAN identifiers, outermost first */
    uint16_t count;              /* 0..4; id[n] is valid when count > n */
} __attribute__((packed));

struct mpls_block {
    /* Label stack entries, outermost first (RFC 3032 section 2.1), without the TTL:
     * label << 4 | traffic class << 1 | bottom of stack. */
    uint32_t entry[MPLS_BLOCK_ENTRIES];
    uint16_t count; /* 0..10; entry[n] is valid when count > n */
    uint16_t reserved;
} __attribute__((packed));

struct mac_block {
    uint8_t source[6]; /* wire order */
    uint8_t destination[6];
} __attribute__((packed));

/* Offsets of the blocks from the start of a record; 0 = the block is absent. Set while the command
 * line is read, before any other thread exists; read-only afterwards. */
extern KX_API uint64_t kestrel_vlan_offset;
extern KX_API uint64_t kestrel_mpls_offset;
extern KX_API uint64_t kestrel_mac_offset;

/* Flow mask (-C): which fields of a packet enter its flow key. */
enum flow_mask {
    FLOW_MASK_IP = 0x0001,        /* source and destination address */
    FLOW_MASK_PORTS = 0x0002,     /* ports of TCP, UDP and SCTP */
    FLOW_MASK_ICMP = 0x0004,      /* ICMP and ICMPv6 type and code */
    FLOW_MASK_MAC = 0x0008,       /* Ethernet addresses */
    FLOW_MASK_L3_ID = 0x0010,     /* l3protocol */
    FLOW_MASK_L4_ID = 0x0020,     /* l4protocol */
    FLOW_MASK_INTERFACE = 0x0040, /* inputsnmp */
    FLOW_MASK_VLAN_ID = 0x0080,   /* every VLAN id found */
    FLOW_MASK_MPLS_ID = 0x0100,   /* every MPLS label stack entry found */
    FLOW_MASK_DEFAULT = 0x0077
};

/* Why a flow ended; passed to a process plugin's release operation. */
enum removal_reason {
    REMOVAL_ACTIVE = 0,    /* active timeout or a counter limit */
    REMOVAL_INACTIVE = 1,  /* inactive timeout */
    REMOVAL_COLLISION = 2, /* bucket full, or a packet older than the flow's last one */
    REMOVAL_FORCED = 3     /* flush, or a plugin's export_flag */
};

/* Interface number of an export entry that has none (-n, -N not given). */
enum { SNMP_INTERFACE_UNSET = 0xFFFF };

#ifdef __cplusplus
}
#define KX_ASSERT_LAYOUT(condition) static_assert(condition, #condition)
#else
#define KX_ASSERT_LAYOUT(condition) _Static_assert(condition, #condition)
#endif

KX_ASSERT_LAYOUT(sizeof(struct flow_record) == FLOW_RECORD_BASE_SIZE);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, start) == 0);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, end) == 8);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, packets) == 16);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, bytes) == 20);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, inputsnmp) == 24);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, outputsnmp) == 26);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, ipv4.srcipv4) == 32);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, ipv4.dstipv4) == 36);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, ipv4.tos) == 40);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, ipv6.srcipv6) == 32);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, ipv6.dstipv6) == 48);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, l3protocol) == 64);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, l4protocol) == 72);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, srcport) == 74);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, dstport) == 76);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, tcpflags) == 78);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, icmptypecode) == 80);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, export_flag) == 82);
KX_ASSERT_LAYOUT(offsetof(struct flow_record, sampling) == 84);
KX_ASSERT_LAYOUT(sizeof(struct vlan_block) == 10 && offsetof(struct vlan_block, count) == 8);
KX_ASSERT_LAYOUT(sizeof(struct mpls_block) == 44 && offsetof(struct mpls_block, count) == 40);
KX_ASSERT_LAYOUT(sizeof(struct mac_block) == 12 && offsetof(struct mac_block, destination) == 6);

#endif
