/* The flow engine as a plugin may see it: the flow cache ("queue"), its remover, and the switch
 * that feeds it. */
#ifndef KESTRELEXP_FLOW_H
#define KESTRELEXP_FLOW_H

#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/plugin.h"
#include "kestrelexp/record.h"
#include "kestrelexp/storage.h"

#ifdef __cplusplus
extern "C" {
#endif

struct flow_queue;
struct flow_switch;

/* Non-zero asks the remover to flush the whole queue (first interrupt, clock jump). The remover
 * clears it once the flushed records have been taken from the final storage. Access it atomically
 * (it is one aligned 32-bit word). */
extern KX_API uint32_t queue_force_flush;

/* Makes a flow cache of 2^size_exponent slots (5 to 30) and starts its remover thread. Timeouts in
 * seconds. final_storage takes finished flows (slots of 88 + data_size bytes). directory: hugetlbfs
 * directory or NULL. plugins: process plugins, borrowed for the life of the queue. */
KX_API struct flow_queue* queue_init(int32_t size_exponent, int32_t active_s, int32_t inactive_s,
                                     struct temporal_storage* final_storage, const char* directory,
                                     uint64_t data_size, int32_t plugin_count,
                                     struct process_plugin* plugins);

/* Adds one packet record with its key. Takes and releases the queue's lock. */
KX_API void queue_update(struct flow_queue* queue, struct flow_record* packet, flow_key key);

/* The next four expect the queue's lock to be held, or no other thread to touch the queue. */

/* Ends the flow in a slot and outputs it; an empty slot is reported and left alone. */
KX_API void queue_remove_record(struct flow_queue* queue, uint32_t slot, int32_t reason);
/* Outputs a record that is not (or no longer) in the queue; waits while the storage is full. */
KX_API void queue_remove_record_oneshot(struct flow_queue* queue, struct flow_record* record,
                                        int32_t reason);
/* One step of the idle scan. */
KX_API void queue_try_to_remove(struct flow_queue* queue);
/* Ends every flow with reason "forced", in slot order. */
KX_API void queue_flush(struct flow_queue* queue);

/* Thread body of the remover; argument: the queue. Never returns. */
KX_API void* queue_remover(void* queue);

/* Sets the flow mask, initialises the input plugin and returns the switch; NULL when the plugin's
 * init failed. An input that cannot serve (no get operation, packets needed but not to be had)
 * ends the program with status 255. */
KX_API struct flow_switch* sw_init(struct flow_queue* queue, uint32_t flow_mask, int needs_packets,
                                   struct input_plugin* input);

/* Thread bodies; argument: the switch. They never return. sw_main_loop feeds the queue (and starts
 * sw_get_flow_thread where reading and updating are split); plugin_final_flow_loop replaces both
 * for inputs that deliver finished flows. */
KX_API void* sw_main_loop(void* flow_switch);
KX_API void* sw_get_flow_thread(void* flow_switch);
KX_API void* plugin_final_flow_loop(void* flow_switch);

/* Context for packet_to_flow_reader from an initialised packet input plugin. */
KX_API struct packet_reader* plugin_flow_reader_init(const struct input_plugin* input);

#ifdef __cplusplus
}
#endif
#endif
