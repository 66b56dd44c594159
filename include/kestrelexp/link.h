/* Link types: how frames that are not Ethernet become Ethernet frames, for inputs that take frames
 * as a device or a file has them. Frames of a cooked device, of a tunnel or of a PPP connection
 * carry the same packets after another header, or after none. And VLAN tags of a kind that the
 * parser does not know.
 */
#ifndef KESTRELEXP_LINK_H
#define KESTRELEXP_LINK_H

#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/packet.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of the Ethernet header that a translated frame begins with. */
enum { LINK_ETHERNET_HEADER = 14 };

/* The header of one link type. A constant of the program. */
struct link_format;

/* The format of a link type, a number as pcap_datalink() of libpcap gives it (DLT_...): NULL and
 * LOOP, PPP and PPP_SERIAL, RAW, IPV4 and IPV6, LINUX_SLL and LINUX_SLL2. NULL for any other, and
 * for Ethernet (EN10MB), whose frames need no translation. */
KX_API const struct link_format* link_format_find(int link_type);

/* Writes the frame with an Ethernet header in place of its own into the buffer, which has
 * buffer_size bytes (LINK_ETHERNET_HEADER at least), and returns the buffer. What does not fit is
 * cut off. header->captured_length says how long the frame is; it becomes the number of bytes in
 * the buffer, and the wire length changes by as much as the header did. Nothing else of *header is
 * touched, and no byte past the captured length is read.
 *
 * The destination address is zero, and so is the source where the frame's header has none of six
 * bytes. The EtherType is that of the packet, a VLAN tag or a label stack, and 0 when the header
 * names nothing of the kind: such a frame is no flow. A frame that ends within its header becomes
 * one of 0 bytes, which is no flow either. */
KX_API const uint8_t* link_to_ethernet(const struct link_format* format, const uint8_t* frame,
                                       struct packet_header* header, uint8_t* buffer,
                                       uint32_t buffer_size);

/* The parser knows VLAN tags by the types 0x8100, 0x9100 and 0x9200, and not by 0x88A8, that of a
 * provider's tags (IEEE 802.1ad). Whether there is such a one (1 or 0) among the tags that the
 * Ethernet frame begins with, and the same tags with 0x8100 in its place. Tags that are cut off are
 * left as they are; no byte past the captured length is touched. */
KX_API int link_has_service_tags(const uint8_t* frame, uint32_t captured_length);
KX_API void link_rewrite_service_tags(uint8_t* frame, uint32_t captured_length);

#ifdef __cplusplus
}
#endif
#endif
