/* Entry points of the built-in plugins, and the collector connection that the exporters share. The
 * built-ins live by plugin.h like every other plugin. */
#ifndef KESTRELEXP_BUILTIN_H
#define KESTRELEXP_BUILTIN_H

#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

KX_API plugin_desc_function input_pcap_desc;
KX_API input_init_function input_pcap_init;
KX_API input_sampling_function input_pcap_sampling;
KX_API packet_function input_pcap_packet;
KX_API input_counters_function input_pcap_counters;
KX_API input_interfaces_function input_pcap_interfaces;

KX_API plugin_desc_function input_rawnetcap_desc;
KX_API input_init_function input_rawnetcap_init;
KX_API input_sampling_function input_rawnetcap_sampling;
KX_API packet_function input_rawnetcap_packet;
KX_API input_counters_function input_rawnetcap_counters;

KX_API plugin_desc_function exporter_null_desc;
KX_API export_init_function exporter_null_init;
KX_API export_export_function exporter_null_export;
KX_API export_flush_function exporter_null_flush;

KX_API plugin_desc_function exporter_nf5_desc;
KX_API export_init_function exporter_nf5_init;
KX_API export_export_function exporter_nf5_export;
KX_API export_flush_function exporter_nf5_flush;

KX_API plugin_desc_function exporter_nf9_desc;
KX_API export_init_function exporter_nf9_init;
KX_API export_export_function exporter_nf9_export;
KX_API export_flush_function exporter_nf9_flush;
KX_API export_tend_function exporter_nf9_tend;

KX_API plugin_desc_function exporter_ipfix_desc;
KX_API export_init_function exporter_ipfix_init;
KX_API export_export_function exporter_ipfix_export;
KX_API export_flush_function exporter_ipfix_flush;
KX_API export_tend_function exporter_ipfix_tend;

/* Compiles the rule file that params name into a struct filter_rules (filter.h). NULL after
 * reporting a fault. getters is not used and may be NULL. */
KX_API plugin_desc_function filter_desc;
KX_API filter_init_function filter_init;
/* 0 keeps the flow, 1 drops it. Reads instance and record, changes neither. */
KX_API filter_filter_function filter_test;

/* ---- The anonymizer: a filter that rewrites addresses and ports and keeps every flow ---- */

KX_API plugin_desc_function anonymizer_desc;
KX_API filter_init_function anonymizer_init;
KX_API filter_filter_function anonymizer_process;

/* ---- The AS helper: a filter that looks AS numbers up and keeps every flow ---- */

struct as_helper_state;

/* The first n bits of an IPv4 network: entry n has the n most significant bits set. */
extern KX_API const uint32_t mask_array4[33];
/* The first n bits of an IPv6 network, least significant word first: word i of entry n is
 * mask_array4[min(32, max(0, n - 32 * i))]. A short prefix thus covers the end of an address. */
extern KX_API const uint32_t mask_array6[129][4];

KX_API plugin_desc_function as_helper_desc;
/* params: path of the table. Adds the getters SRC_AS, DST_AS, SRC_AS32 and DST_AS32. */
KX_API filter_init_function as_helper_init;
KX_API filter_filter_function as_helper_lookup;

/* Loads the table (old NULL) or loads it anew into old. Returns the state, NULL when there is
 * none: the file cannot be read or does not make a table. path is borrowed for good. */
KX_API struct as_helper_state* __as_helper_init(const char* path, struct as_helper_state* old);

/* The getters' functions; context is the state. They tell of the flow that was looked up last. */
KX_API getter_valid_function as_helper_ok; /* always 1 */
KX_API getter_length_function as_helper_4; /* always 4 */
KX_API getter_get_function as_helper_get_src, as_helper_get_dst;

/* ---- The collector connection ---- */

/* A socket connected to host:port. protocol: IP protocol number, 17, 6 or 132 (datagram for 17,
 * stream for all others). ip: 4, 6, 46 (4 first) or 64 (6 first). Returns a descriptor greater
 * than 0, or 0 or less on failure. The caller owns the descriptor. */
KX_API int net_connect(const char* host, uint16_t port, uint8_t protocol, uint32_t ip);

/* Sends all length bytes; returns length, or the negative result of the send that failed. */
KX_API int64_t net_send(int socket, const void* buffer, uint32_t length, int flags);

#ifdef __cplusplus
}
#endif
#endif
