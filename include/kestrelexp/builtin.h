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

KX_API plugin_desc_function exporter_ipfix_desc;
KX_API export_init_function exporter_ipfix_init;
KX_API export_export_function exporter_ipfix_export;
KX_API export_flush_function exporter_ipfix_flush;

/* Compiles the rule file that params name into a struct filter_rules (filter.h). NULL after
 * reporting a fault. getters is not used and may be NULL. */
KX_API plugin_desc_function filter_desc;
KX_API filter_init_function filter_init;
/* 0 keeps the flow, 1 drops it. Reads instance and record, changes neither. */
KX_API filter_filter_function filter_test;

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
