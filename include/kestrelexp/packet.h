/* Parser services for input and process plugins: from an Ethernet frame to a flow record and key.
 */
#ifndef KESTRELEXP_PACKET_H
#define KESTRELEXP_PACKET_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a packet input driver tells of a frame. */
struct packet_header {
    uint64_t timestamp;       /* ns since the Unix epoch */
    uint32_t wire_length;     /* bytes of the frame on the wire */
    uint32_t captured_length; /* bytes readable at the frame pointer */
    uint16_t input_interface; /* goes to inputsnmp */
    uint16_t output_interface;
};

/* Packet function of an input driver: fills *header and returns the frame, or NULL when none is
 * ready. The frame stays valid until the next call. */
typedef const uint8_t* packet_function(void* instance, struct packet_header* header);

/* What packet_to_flow_reader needs of an input driver. */
struct packet_reader {
    uint32_t sampling; /* the low 16 bits go into every record */
    void* context;     /* first argument of get_packet */
    packet_function* get_packet;
};

/* Flow keys are 64 bits wide with the top bit set, so a valid key is negative; 0 (any non-negative
 * number) says "no flow". */
typedef int64_t flow_key;

/* Takes one frame from the reader's driver and parses it into *record. The caller has prepared the
 * record (see record_process_packet for what that is; start, end, inputsnmp, outputsnmp and
 * sampling are set here). Returns the key, or 0 when no frame was ready or the frame is no flow.
 * reader points to a struct packet_reader. */
KX_API flow_key packet_to_flow_reader(void* reader, struct flow_record* record);

/* Parses the captured_length bytes of one Ethernet frame into *record (88 bytes + data space).
 * Sets packets to 1 and clears bytes, tcpflags, l3protocol, l4protocol, inputsnmp, outputsnmp,
 * sampling, export_flag and the VLAN and MPLS counts first; start and end are the caller's.
 * Never reads past captured_length: bytes after it count as zero. Returns the key, or 0 when the
 * frame is no flow (not IP, or a tag or label stack that runs past the captured bytes). */
KX_API flow_key record_process_packet(const uint8_t* data, uint32_t captured_length,
                                      struct flow_record* record);

/* The last frame parsed on the calling thread: returns its start, and stores its captured length
 * and the bytes up to the first one after the last header understood (0 when it was no flow).
 * Returns NULL when the headers run past the captured bytes, or when this thread parsed nothing.
 * Meant for process plugins called for the packet just parsed; see "needs packets" in plugin.h. */
KX_API const uint8_t* get_packet_data(uint32_t* captured_length, uint32_t* header_length);

/* Slicing-by-4 tables of the reflected CRC-64 with the ECMA-182 polynomial (reflected form
 * 0xC96C5795D7870F42): crc64_table[0] is the byte-wise table, crc64_table[k][i] advances it by k
 * zero bytes. The flow key is built with them. */
extern KX_API const uint64_t crc64_table[4][256];

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct packet_header) == 24);
KX_ASSERT_LAYOUT(offsetof(struct packet_header, timestamp) == 0);
KX_ASSERT_LAYOUT(offsetof(struct packet_header, wire_length) == 8);
KX_ASSERT_LAYOUT(offsetof(struct packet_header, captured_length) == 12);
KX_ASSERT_LAYOUT(offsetof(struct packet_header, input_interface) == 16);
KX_ASSERT_LAYOUT(offsetof(struct packet_header, output_interface) == 18);
KX_ASSERT_LAYOUT(sizeof(struct packet_reader) == 24);

#endif
