/* Temporal storage: a ring of fixed-size record slots between exactly one producer thread and one
 * consumer thread. The producer fills a slot in place and commits it; the consumer reads it in
 * place. Flow control is by credits in batches of one eighth of the ring (at least one slot). */
#ifndef KESTRELEXP_STORAGE_H
#define KESTRELEXP_STORAGE_H

#include <stdint.h>

#include "kestrelexp/api.h"

#ifdef __cplusplus
extern "C" {
#endif

struct temporal_storage;

/* Makes a ring. count: 0 becomes 1024 and more than 2^20 becomes 2^20, both with a message.
 * slot_size: bytes. directory: hugetlbfs directory, or NULL for ordinary memory. name: names the
 * ring in messages and files. Failures end the program (255: no pipe; 102, 214: no memory). */
KX_API struct temporal_storage* temporal_storage_init(uint32_t count, uint32_t slot_size,
                                                      const char* directory, const char* name);

/* Producer: the current slot, to be filled. Without a credit left it is the oldest slot, which the
 * consumer may be reading; use temporal_storage_reserve where that must not happen. */
KX_API void* temporal_storage_current(struct temporal_storage* storage);

/* Producer: waits until the current slot is free (a credit is there) and returns it. */
KX_API void* temporal_storage_reserve(struct temporal_storage* storage);

/* Producer: commits the current slot and returns the next one; blocks while there is no credit. */
KX_API void* temporal_storage_put(struct temporal_storage* storage);

/* Producer: copies slot_size bytes into the current slot (free or not), then puts. */
KX_API void* temporal_storage_put_block(struct temporal_storage* storage, const void* record);

/* Consumer: the next filled slot, or NULL when none came within timeout_ms (-1: wait for ever; a
 * partial batch then comes with the put that completes it). Valid until the next get. */
KX_API void* temporal_storage_get(struct temporal_storage* storage, int timeout_ms);

#ifdef __cplusplus
}
#endif
#endif
