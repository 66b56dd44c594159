/* The plugin contract: four kinds, the entry points of each, and the registry that holds them.
 *
 * A plugin is a shared object that exports an int32_t `plugin_type` (a sum of PLUGIN_KIND_* bits)
 * and, for each bit, the functions declared at the end of this file, under exactly those names. The
 * built-in plugins are registered through the same four add_*_plugin functions.
 *
 * Ownership: descriptions and their strings are constants of the plugin. params strings belong to
 * the program and live as long as it does. Instances belong to the plugin and are never freed.
 */
#ifndef KESTRELEXP_PLUGIN_H
#define KESTRELEXP_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/packet.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

enum plugin_kind {
    PLUGIN_KIND_INPUT = 1,
    PLUGIN_KIND_EXPORT = 2,
    PLUGIN_KIND_PROCESS = 4,
    PLUGIN_KIND_FILTER = 8
};

/* The version of this contract. It grows with each operation that plugins may offer or ask for
 * anew; what an earlier version has stays. */
enum { PLUGIN_CONTRACT_VERSION = 3 };

struct plugin_description {
    const char* name;        /* chosen by on the command line; unique within the kind */
    const char* description; /* help text of -l, may have several lines */
    uint16_t data_size;      /* bytes wanted in every record's data space; input and process only */
    int32_t flags;           /* process plugins: non-zero = needs the packet of each record;
                                the others: a sum of PLUGIN_* flags */
};

/* What an input, export or filter plugin may ask for in its description's flags. Bit 0 has no
 * meaning for them: an object that is process plugin too, with one description, may have set it.
 * Process plugins cannot ask: any flag of theirs says that they need packets, and an object with
 * one description for a process plugin and another kind gets both meanings. */
enum plugin_flag {
    /* params is all that stands after the name and its ':', further ':' included; NULL when that
     * is nothing. Without this bit params ends at the next ':'. */
    PLUGIN_WHOLE_PARAMS = 0x100
};

/* The name of the same flag from when filters alone could ask. */
enum filter_flag { FILTER_WHOLE_PARAMS = PLUGIN_WHOLE_PARAMS };

typedef const struct plugin_description* plugin_desc_function(void);

/* ---- Input plugins: exactly one of get_packet, get_flow and get_final_flow, or get_batch ---- */

/* Opens the input. needs_packets: some process plugin will look at whole frames. data_offset: where
 * the plugin's own data_size bytes lie in each record. Returns the instance, NULL on failure. */
typedef void* input_init_function(char* params, int needs_packets, uint16_t data_offset);
/* May add getters to the base table. Called once, after init. */
typedef void input_getter_init_function(void* instance, struct getter** table);
/* Sampling rate of the driver (1-in-N), 0 = none. Read once, after init. */
typedef uint32_t input_sampling_function(void* instance);
/* Fills a prepared record with one packet's data and returns its key, or a non-negative value when
 * nothing was produced. "Prepared": packets 1; bytes, tcpflags, l3protocol, l4protocol, export_flag
 * and the VLAN and MPLS counts 0. Called in a loop: wait a little inside (10 ms, say) rather than
 * return at once when there is nothing. */
typedef flow_key input_flow_function(void* instance, struct flow_record* record);
/* The frame of the record that get_flow returned last, with its captured length and the bytes
 * up to the first one after its headers. Only beside get_flow. */
typedef const uint8_t* input_flow_packet_function(void* instance, uint32_t* captured_length,
                                                  uint32_t* header_length);
/* Fills a prepared record with a finished flow: returns 0 when it did, non-zero when not. */
typedef flow_key input_final_flow_function(void* instance, struct flow_record* record);

/* What an input says of itself with its clock. */
enum input_clock_state {
    INPUT_CLOCK_RUNS = 0,  /* more packets may come */
    INPUT_CLOCK_ENDED = 1, /* the last packet has been delivered */
    INPUT_CLOCK_FAILED = 2 /* as before, but the input broke off: packets are missing */
};

/* Optional, beside get_packet or get_batch (whose queue 0 is the only one then): the input brings
 * its own clock (a replay), and the times of its
 * packets, not the system's clocks, drive all time of the program: ageing, the times that exports
 * write, the start-up time, the flush of idle exports. Stores in *now how far the input has come,
 * in ns since the Unix epoch: no packet to come is older, save for packets that are out of order.
 * Returns an enum input_clock_state. After INPUT_CLOCK_ENDED the program exports every flow and
 * ends with status 0; after INPUT_CLOCK_FAILED it does the same and ends with status 1, and the
 * input has said why. (Any other number but 0 is taken as INPUT_CLOCK_ENDED.) Called once or more
 * after init, when *now is the time of the first packet to come, and whenever get_packet returned
 * NULL, or get_batch nothing. An input that waits for packets returns so now and then (every 10 ms,
 * say). */
typedef int input_clock_function(void* instance, uint64_t* now);

/* What an input knows of the frames that it did not deliver. All but the last two count from 0 at
 * init and only grow; 64 bits wide whatever the kernel has. What an input does not know stays 0. */
struct input_counts {
    uint64_t ring_dropped_packets; /* the capture ring had no room for them */
    uint64_t card_dropped_packets; /* the interface lost them before that, by its own counters */
    uint64_t sampled_out_packets;  /* taken and passed over by the input's own sampling */
    uint64_t sampled_out_bytes;    /* of these, on the wire */
    uint64_t interface_changes; /* the interface went down or away, came back or got a new name */
    uint64_t unread_packets;    /* in the capture ring just now, where that can be told */
    uint64_t is_up;             /* 1: frames can be taken; 0: not, the interface is down or away */
};

/* ---- Inputs with queues: batches of frames, taken on a thread for each queue ---- */

/* One frame of a batch. */
struct input_frame {
    struct packet_header header;
    const uint8_t* data;
};

/* Optional, with get_batch: how many queues there are, 1 to INPUT_QUEUES_LIMIT. Called once, on the
 * main thread, after init and before the first batch, while the program still has the rights that
 * it was started with. Where the program can serve only one queue (a process plugin that may not be
 * called from several threads) it does not ask, and queue 0 has everything. A number out of range
 * ends the program with status 255. */
typedef uint32_t input_queues_function(void* instance);

enum { INPUT_QUEUES_LIMIT = 64 };

/* Optional: stores up to limit frames of a queue and returns how many. They stay valid until the
 * next call for the same queue. Waits at most 10 ms for the first and for no other. Each queue has
 * a thread of its own, so that calls for different queues come at the same time. The frames of a
 * flow belong into one queue: each queue has a flow cache of its own. The headers are zeroed
 * before. An input with this needs none of the three older ways to deliver, and where it
 * has one of those as well, this one is used. */
typedef uint32_t input_batch_function(void* instance, uint32_t queue, struct input_frame* frames,
                                      uint32_t limit);

/* Optional: tells what the input has counted. counts is zeroed, with is_up 1. queue: that of
 * get_batch, else 0; what belongs to no queue is told for queue 0 only. Called about four times a
 * second and once at the end of the run, on the thread that calls get_packet or its like, between
 * two calls; an input that waits for frames returns from that now and then (every 10 ms, say).
 * Quick, as frames wait meanwhile. */
typedef void input_counters_function(void* instance, uint32_t queue, struct input_counts* counts);

/* An interface that frames come from. Texts end with NUL, in UTF-8, and are valid while they are
 * told.
 */
struct input_interface {
    uint32_t number;         /* what the packet headers or flow records carry for it */
    const char* name;        /* eth0; empty: not known */
    const char* description; /* what it is for; empty: nobody has said */
};

/* The program's own: takes one interface. */
typedef void input_interface_told_function(void* context, const struct input_interface* told);

/* Optional: tells of each interface that the input captures from, one after the other, by calls of
 * tell(context, ...). Called once after init, on the main thread, and then, when exports want to
 * know, about four times a second where input_counters_function is called, for queue 0. Quick, as
 * frames wait meanwhile. */
typedef void input_interfaces_function(void* instance, input_interface_told_function* tell,
                                       void* context);

struct input_plugin {
    plugin_desc_function* desc;
    input_init_function* init;
    input_getter_init_function* getter_init; /* may be NULL */
    input_sampling_function* sampling;       /* return_zero_func when the plugin has none */
    packet_function* get_packet;
    input_flow_function* get_flow;
    input_flow_packet_function* get_flow_packet;
    input_final_flow_function* get_final_flow;
    char* params; /* filled when the plugin is chosen; may be NULL */
    uint16_t data_offset;
    void* instance; /* filled by init */
};

/* ---- Export plugins ---- */

/* Connects the export. getters is this export's own table. Returns the instance, NULL on failure.
 */
typedef void* export_init_function(char* params, struct getter* getters);
/* Takes one flow; returns 0, or 0xFFFFFFFF when it was not exported. The record may be changed by
 * filters of exports after this one, so nothing of it is kept by reference. */
typedef uint32_t export_export_function(void* instance, struct flow_record* record);
/* Sends what is buffered. Called when traffic stops and at the end of the program. */
typedef uint32_t export_flush_function(void* instance);

enum { EXPORT_TEND_NEVER = -1 };
/* Optional: for what an export does by the clock. Called for the first time before the first flow,
 * and then again once as many ms have passed as it returned; a negative number ends the calls. A
 * call may be 50 ms late, and in a replay, where it goes by the time of the packets, as late as the
 * next flow. On the thread of the other export functions, which waits meanwhile. */
typedef int32_t export_tend_function(void* instance);

struct export_plugin {
    plugin_desc_function* desc;
    export_init_function* init;
    export_export_function* export_record;
    export_flush_function* flush;
    char* params;
    void* instance;
};

/* ---- Filter plugins ---- */

/* Returns the instance, NULL on failure. *getters is the table of the chain the filter stands in
 * (the base table for -G); a filter may add getters to it. */
typedef void* filter_init_function(char* params, struct getter** getters);
/* 0 keeps the flow, anything else drops it. The filter may change the record; the change stays for
 * everything after it. */
typedef int32_t filter_filter_function(void* instance, struct flow_record* record);

struct filter_plugin {
    plugin_desc_function* desc;
    filter_init_function* init;
    filter_filter_function* filter;
    char* params;
    void* instance;
};

/* ---- Process plugins ---- */

struct process_plugin;

/* data_offset: where the plugin's own data_size bytes lie in each record. NULL on failure. */
typedef void* process_init_function(char* params, uint16_t data_offset);
/* May add getters to the base table. self is the program's record of this plugin. */
typedef void process_getter_init_function(void* instance, struct getter** table,
                                          struct process_plugin* self);
/* A packet starts a flow: fill the plugin's area of the packet record, which becomes the flow's. */
typedef void process_create_function(void* instance, struct flow_record* packet);
/* A packet joins a flow; the flow's counters already include it. Setting flow->export_flag ends
 * the flow. */
typedef void process_update_function(void* instance, struct flow_record* flow,
                                     struct flow_record* packet);
/* The flow ends for the reason given (enum removal_reason), just before it is handed to export. */
typedef void process_release_function(void* instance, struct flow_record* flow, int32_t reason);

/* create, update and release run under the flow cache's lock, on the switch or the remover thread:
 * be quick, never block. Setting packet->export_flag in create outputs the packet record at once.
 */
struct process_plugin {
    plugin_desc_function* desc;
    process_init_function* init;
    process_getter_init_function* getter_init; /* may be NULL */
    process_create_function* create;
    process_update_function* update;
    process_release_function* release;
    uint16_t data_offset;
    char* params;
    void* instance;
};

/* ---- The registry ---- */

struct dirent;
struct plugin_operations;

struct plugin_registry {
    int32_t input_count;
    struct input_plugin* inputs; /* arrays in order of registration */
    int32_t export_count;
    struct export_plugin* exports;
    int32_t filter_count;
    struct filter_plugin* filters;
    int32_t process_count;
    struct process_plugin* processes;
    uint16_t extension_length; /* bytes of the record's data space reserved so far */
    int32_t process_flag;      /* some chosen process plugin needs packets */
    struct dirent** directory_list;
    struct plugin_operations* operations; /* the program's own; NULL in a new registry */
};

/* Registration happens on the main thread before any other exists. A name that the kind already
 * has, or an input without exactly one way to deliver, ends the program with status 255. Optional
 * operations are NULL. */
KX_API void add_input_plugin(struct plugin_registry* registry, plugin_desc_function* desc,
                             input_init_function* init, input_sampling_function* sampling,
                             input_getter_init_function* getter_init, input_flow_function* get_flow,
                             input_final_flow_function* get_final_flow, packet_function* get_packet,
                             input_flow_packet_function* get_flow_packet);
KX_API void add_export_plugin(struct plugin_registry* registry, plugin_desc_function* desc,
                              export_init_function* init, export_export_function* export_record,
                              export_flush_function* flush);
KX_API void add_filter_plugin(struct plugin_registry* registry, plugin_desc_function* desc,
                              filter_init_function* init, filter_filter_function* filter);
KX_API void add_process_plugin(struct plugin_registry* registry, plugin_desc_function* desc,
                               process_init_function* init,
                               process_getter_init_function* getter_init,
                               process_create_function* create, process_update_function* update,
                               process_release_function* release);

/* Loads one shared object and registers a plugin for each bit of its plugin_type. An object that
 * cannot be opened is reported and skipped; one that breaks the contract ends the program (255). */
KX_API void add_plugin(const char* path, struct plugin_registry* registry);

/* Prints the plugin list to standard output and ends the program with status 0. */
KX_API void print_plugins(const struct plugin_registry* registry) __attribute__((noreturn));

/* ---- What an external plugin defines ----
 * Declared here so that the compiler checks a plugin's signatures; define what your kind needs.
 * "Optional" entry points are simply left out. */

extern KX_API int32_t plugin_type;

/* Optional: PLUGIN_CONTRACT_VERSION as it was when the plugin was built. A program whose contract
 * is older refuses the object with both numbers (status 255), one that is as old or newer takes it.
 * An object without this symbol is taken by every program. */
extern KX_API int32_t plugin_contract_version;

KX_API plugin_desc_function plugin_input_desc;
KX_API input_init_function plugin_input_init;
KX_API input_getter_init_function plugin_input_getter_init;   /* optional */
KX_API input_sampling_function plugin_input_sampling;         /* optional */
KX_API packet_function plugin_input_get_packet;               /* one of these three, or get_batch */
KX_API input_flow_function plugin_input_get_flow;             /* ... */
KX_API input_final_flow_function plugin_input_get_final_flow; /* ... */
KX_API input_flow_packet_function plugin_input_get_flow_packet; /* optional, beside get_flow */
KX_API input_clock_function plugin_input_clock;       /* optional, beside get_packet or get_batch */
KX_API input_counters_function plugin_input_counters; /* optional */
KX_API input_batch_function plugin_input_get_batch;   /* optional */
KX_API input_queues_function plugin_input_queues;     /* optional, beside get_batch */
KX_API input_interfaces_function plugin_input_interfaces; /* optional */

/* Optional: not 0 says that the input's sampling picks packets at random, not each N-th. Read once,
 * after init. */
extern KX_API int32_t plugin_input_sampling_is_random;

KX_API plugin_desc_function plugin_export_desc;
KX_API export_init_function plugin_export_init;
KX_API export_export_function plugin_export_export;
KX_API export_flush_function plugin_export_flush;
KX_API export_tend_function plugin_export_tend; /* optional */

KX_API plugin_desc_function plugin_process_desc;
KX_API process_init_function plugin_process_init;
KX_API process_create_function plugin_process_create;
KX_API process_update_function plugin_process_update;
KX_API process_release_function plugin_process_release;
KX_API process_getter_init_function plugin_process_getter_init; /* optional */

/* Optional: not 0 says that create, update and release may be called on several threads at the same
 * time, never for the same flow. Without it, an input with queues is served by one thread. */
extern KX_API int32_t plugin_process_is_thread_safe;

KX_API plugin_desc_function plugin_filter_desc;
KX_API filter_init_function plugin_filter_init;
KX_API filter_filter_function plugin_filter_filter;

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct plugin_description) == 24);
KX_ASSERT_LAYOUT(offsetof(struct plugin_description, name) == 0);
KX_ASSERT_LAYOUT(offsetof(struct plugin_description, description) == 8);
KX_ASSERT_LAYOUT(offsetof(struct plugin_description, data_size) == 16);
KX_ASSERT_LAYOUT(offsetof(struct plugin_description, flags) == 20);
KX_ASSERT_LAYOUT(sizeof(struct input_plugin) == 88);
KX_ASSERT_LAYOUT(offsetof(struct input_plugin, sampling) == 24);
KX_ASSERT_LAYOUT(offsetof(struct input_plugin, get_packet) == 32);
KX_ASSERT_LAYOUT(offsetof(struct input_plugin, get_final_flow) == 56);
KX_ASSERT_LAYOUT(offsetof(struct input_plugin, params) == 64);
KX_ASSERT_LAYOUT(offsetof(struct input_plugin, data_offset) == 72);
KX_ASSERT_LAYOUT(offsetof(struct input_plugin, instance) == 80);
KX_ASSERT_LAYOUT(sizeof(struct input_frame) == 32);
KX_ASSERT_LAYOUT(offsetof(struct input_frame, data) == 24);
KX_ASSERT_LAYOUT(sizeof(struct input_counts) == 56);
KX_ASSERT_LAYOUT(offsetof(struct input_counts, unread_packets) == 40);
KX_ASSERT_LAYOUT(sizeof(struct input_interface) == 24);
KX_ASSERT_LAYOUT(offsetof(struct input_interface, description) == 16);
KX_ASSERT_LAYOUT(sizeof(struct export_plugin) == 48);
KX_ASSERT_LAYOUT(offsetof(struct export_plugin, params) == 32);
KX_ASSERT_LAYOUT(offsetof(struct export_plugin, instance) == 40);
KX_ASSERT_LAYOUT(sizeof(struct filter_plugin) == 40);
KX_ASSERT_LAYOUT(offsetof(struct filter_plugin, params) == 24);
KX_ASSERT_LAYOUT(offsetof(struct filter_plugin, instance) == 32);
KX_ASSERT_LAYOUT(sizeof(struct process_plugin) == 72);
KX_ASSERT_LAYOUT(offsetof(struct process_plugin, data_offset) == 48);
KX_ASSERT_LAYOUT(offsetof(struct process_plugin, params) == 56);
KX_ASSERT_LAYOUT(offsetof(struct process_plugin, instance) == 64);
KX_ASSERT_LAYOUT(offsetof(struct plugin_registry, extension_length) == 64);
KX_ASSERT_LAYOUT(offsetof(struct plugin_registry, process_flag) == 68);

#endif
