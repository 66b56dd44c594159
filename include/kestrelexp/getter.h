/* Getters: the field vocabulary. A getter reads one value out of a flow record by name; export
 * templates, filters and the AS fields of NetFlow v5 are built from them.
 *
 * A table is one contiguous heap array closed by an entry whose name is NULL and whose length is
 * 0xFFFFFFFF; a NULL pointer is an empty table. Tables are built while the program starts, on one
 * thread, and are read-only afterwards; accessors and validity tests may run on any thread.
 */
#ifndef KESTRELEXP_GETTER_H
#define KESTRELEXP_GETTER_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

struct getter;

/* Whether the field means something in this record: non-zero = yes. */
typedef int getter_valid_function(void* context, const struct flow_record* record);

/* The natural length of the field, in bytes. */
typedef uint32_t getter_length_function(void);

/* Writes the field to destination, widened with zeros or truncated to length bytes, in network
 * order when network_order is non-zero. A length other than 1, 2, 4, 8 and 16 takes no part of a
 * field: destination must then hold the whole of it (see record_universal_get). self is the table
 * entry that is being read; the base getters ignore it. */
typedef void getter_get_function(void* context, const struct flow_record* record, void* destination,
                                 uint32_t length, uint32_t network_order,
                                 const struct getter* self);

struct getter {
    uint32_t index;   /* position in the table it was added to; also its bit in getter bitmaps */
    const char* name; /* borrowed: lives as long as the program */
    uint32_t length;  /* natural length, bytes */
    void* context;    /* first argument of valid and get; NULL for the base getters */
    getter_valid_function* valid;
    getter_length_function* length_fn;
    getter_get_function* get;
};

enum { GETTER_LIMIT = 64 };

/* Appends one entry to *table, which may move. Ends the program (status 255) when an entry begins
 * with the new name, or when the table already holds 64. */
KX_API void getter_add(struct getter** table, const char* name, uint32_t length, void* context,
                       getter_valid_function* valid, getter_length_function* length_fn,
                       getter_get_function* get);

/* The first entry whose name begins with name, or NULL. */
KX_API struct getter* getter_by_name(struct getter* table, const char* name);

/* OR of 1 << index over all entries; 0 for an empty table. */
KX_API uint64_t getter_bitmap_from_list(const struct getter* table);

/* OR of 1 << index over the entries that are valid for the record. */
KX_API uint64_t getter_bitmap_from_record(const struct getter* table,
                                          const struct flow_record* record);

/* The length function for 1, 2, 4, 6, 8 or 16 bytes; any other length ends the program (255). */
KX_API getter_length_function* __length_helper(uint32_t length);

/* Builds the base table. Call it after the block offsets of record.h are settled: the VLAN and MAC
 * getters exist only with their blocks (the MPLS getters with the VLAN block). */
KX_API struct getter* getter_base_init(void);

/* Appends every entry of source to *destination, indices unchanged, without any check. */
KX_API void getter_copy_list(struct getter** destination, const struct getter* source);

/* Appends one entry to *destination, index unchanged. */
KX_API void getter_copy_to(struct getter** destination, const struct getter* entry);

/* Copies one value of source_length bytes at source + source_offset into destination_length bytes.
 * Wider destinations are filled with zeros (in front in network order, after in host order); the
 * value then has its own length, else the destination's. A value of 1, 2, 4, 8 or 16 bytes is a
 * number: its low-order bytes are written, swapped in network order. A value of any other length (3
 * and 6 above all) is copied unswapped, and with all its source_length bytes even when the
 * destination is shorter: the caller provides the room. */
KX_API void record_universal_get(void* destination, const void* source, int32_t source_offset,
                                 int32_t source_length, int32_t destination_length,
                                 uint32_t network_order);

/* Writes the record as one line "flow: FLOW: ..." through verbose_msg at the given level. */
KX_API void record_print(int level, const struct flow_record* record);

/* The functions of the base table, for plugins that read a field without looking its name up. A
 * field that has none here is reached by its name. */
KX_API getter_length_function record_length_1, record_length_2, record_length_3, record_length_4,
    record_length_6, record_length_8, record_length_16;

KX_API getter_valid_function record_valid_ok, record_ipv4_ok, record_ipv6_ok, record_icmp_ok,
    record_tcp_ok, record_ports_ok, record_mac_ok;
KX_API getter_valid_function record_vlan0_ok, record_vlan1_ok, record_vlan2_ok, record_vlan3_ok;
KX_API getter_valid_function record_mpls0_ok, record_mpls1_ok, record_mpls2_ok, record_mpls3_ok,
    record_mpls4_ok, record_mpls5_ok, record_mpls6_ok, record_mpls7_ok, record_mpls8_ok,
    record_mpls9_ok;

KX_API getter_get_function record_get_zero, record_get_bytes, record_get_packets;
KX_API getter_get_function record_get_startup_time_sec, record_get_startup_time_msec,
    record_get_startup_time_usec, record_get_startup_time_nsec;
KX_API getter_get_function record_get_start_sec, record_get_start_msec, record_get_start_usec,
    record_get_start_nsec;
/* record_get_end_sec counts from the program's start, its three siblings from the epoch. */
KX_API getter_get_function record_get_end_sec, record_get_end_msec, record_get_end_usec,
    record_get_end_nsec;
KX_API getter_get_function record_get_relative_start_sec, record_get_relative_start_msec,
    record_get_relative_start_usec, record_get_relative_start_nsec;
KX_API getter_get_function record_get_relative_end_sec, record_get_relative_end_msec,
    record_get_relative_end_usec, record_get_relative_end_nsec;
KX_API getter_get_function record_get_sampling, record_get_sampling_algorithm, record_get_inputsnmp,
    record_get_outputsnmp;
KX_API getter_get_function record_get_vlan0, record_get_vlan1, record_get_vlan2, record_get_vlan3;
KX_API getter_get_function record_get_srcmac, record_get_dstmac;
KX_API getter_get_function record_get_l3protocol, record_get_srcipv4, record_get_dstipv4,
    record_get_tos, record_get_srcipv6, record_get_dstipv6;
KX_API getter_get_function record_get_l4protocol, record_get_tcpflags, record_get_srcport,
    record_get_dstport, record_get_icmptypecode;
KX_API getter_get_function record_get_mpls0, record_get_mpls1, record_get_mpls2, record_get_mpls3,
    record_get_mpls4, record_get_mpls5, record_get_mpls6, record_get_mpls7, record_get_mpls8,
    record_get_mpls9;

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct getter) == 56);
KX_ASSERT_LAYOUT(offsetof(struct getter, index) == 0);
KX_ASSERT_LAYOUT(offsetof(struct getter, name) == 8);
KX_ASSERT_LAYOUT(offsetof(struct getter, length) == 16);
KX_ASSERT_LAYOUT(offsetof(struct getter, context) == 24);
KX_ASSERT_LAYOUT(offsetof(struct getter, valid) == 32);
KX_ASSERT_LAYOUT(offsetof(struct getter, length_fn) == 40);
KX_ASSERT_LAYOUT(offsetof(struct getter, get) == 48);

#endif
