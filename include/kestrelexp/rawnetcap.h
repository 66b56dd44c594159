/* The ring of the rawnetcap capture module, read in place: the device layer below the "rawnetcap"
 * input. It speaks the module's protocol and knows nothing of plugins. Faults of the device go
 * straight to standard error as "RAWNETCAP: ..." lines. One thread at a time uses a context. */
#ifndef KESTRELEXP_RAWNETCAP_H
#define KESTRELEXP_RAWNETCAP_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What the module writes in front of each frame; host byte order. */
struct rawnetcap_record {
    uint32_t seconds; /* since the Unix epoch */
    uint32_t nanoseconds;
    uint16_t captured_length; /* bytes of frame data after this header */
    uint16_t wire_length;
    uint16_t input_interface;
    uint16_t reserved_14; /* not read */
};

struct rawnetcap_context;

/* Opens the device, adds the capture devices of a list parted by ',' (empty names are skipped),
 * maps the ring and starts the capture. sampling, snap_length (bytes) and cache_size (KiB) are left
 * to the module when 0. Returns NULL after reporting a fault, and silently when there is no device
 * file; nothing stays open then. The context lives for the whole run. */
KX_API struct rawnetcap_context* rawnetcap_init(const char* devices, uint32_t sampling,
                                                uint32_t snap_length, uint32_t cache_size);

/* The next record, in the ring itself, or NULL when none came within the time-out. Valid until the
 * next call; its frame lies right after it and wholly within the ring. A record that would run
 * past the ring ends the capture: it is reported, the device is given back, and from then on every
 * call waits for the time-out and returns NULL. */
KX_API const struct rawnetcap_record* rawnetcap_get_next(struct rawnetcap_context* context,
                                                         int timeout_ms);

/* Bytes of the ring; 0 for a NULL context. */
KX_API uint64_t rawnetcap_get_buffer_size(const struct rawnetcap_context* context);

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct rawnetcap_record) == 16);
KX_ASSERT_LAYOUT(offsetof(struct rawnetcap_record, nanoseconds) == 4);
KX_ASSERT_LAYOUT(offsetof(struct rawnetcap_record, captured_length) == 8);
KX_ASSERT_LAYOUT(offsetof(struct rawnetcap_record, wire_length) == 10);
KX_ASSERT_LAYOUT(offsetof(struct rawnetcap_record, input_interface) == 12);

#endif
