/* Outlets: how an export hands messages to whatever may hold it up (a collector, a broker, a pipe,
 * a disk) without ever being held up itself.
 *
 * An outlet is a bounded ring of whole messages and a thread, its worker. The export offers
 * messages on the thread that calls it, the record loop's; the worker calls the export's own
 * functions to get rid of them. What does not fit into the ring is dropped, the newest first, and
 * counted. The functions that the worker calls may wait for as long as they like: messages go on
 * being taken meanwhile, as long as there is room.
 *
 *   plugin_export_init    outlet_open
 *   plugin_export_export  outlet_offer when a message is complete
 *   plugin_export_flush   outlet_offer with the message that is under way
 *   worker                tend: is everything ready?  deliver: the oldest message
 *
 * Every message that was offered comes to one of five ends (enum outlet_fate), and an outlet counts
 * them all as metrics of the export that opens it, so the export is not to count what it sends
 * itself: kestrelexp_export_records_total and its like for what was sent,
 * kestrelexp_export_lost_records_total with a reason for what was lost, and
 * kestrelexp_export_queued_records for what has come to no end yet.
 *
 * The program closes all outlets at its end, after the last flush of all exports: they go on at the
 * same time for as long as each was given, and what is left then is counted as lost. An export that
 * ends the program itself, as one that does not run in the background and gives its collector up,
 * leaves no time for that. */
#ifndef KESTRELEXP_OUTLET_H
#define KESTRELEXP_OUTLET_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

struct outlet;

struct outlet_message {
    void* data; /* whole; the worker's functions may change the bytes, and mark: no other field */
    uint32_t length;  /* bytes */
    uint32_t records; /* flow records in it, for the counts */
    uint64_t packets; /* packets in these records */
    uint64_t number;  /* the export's own, such as a sequence number */
    uint64_t mark;    /* the worker's functions' own: kept while the message is held */
};

/* What deliver answers. */
enum outlet_answer {
    OUTLET_DONE = 0,  /* it was sent, whatever becomes of those that are held */
    OUTLET_KEEP = 1,  /* it is on its way: held until outlet_settle or outlet_return */
    OUTLET_LATER = 2, /* not now: tend is called, and then deliver again with this message */
    OUTLET_REFUSE = 3 /* it can never be sent, and is lost */
};

/* What becomes of a message. All but the first are losses, and are named as reasons. */
enum outlet_fate {
    OUTLET_SENT = 0,
    OUTLET_UNSENT = 1,         /* reason="send": it could not be sent */
    OUTLET_UNACKNOWLEDGED = 2, /* reason="unacknowledged": on its way when its connection broke */
    OUTLET_QUEUE_FULL = 3,     /* reason="queue_full": it did not fit when it was offered */
    OUTLET_NOT_DRAINED = 4     /* reason="not_drained": left when the time at the end was over */
};
enum { OUTLET_FATES = 5 };

/* What the worker waits for when there is nothing to do. */
struct outlet_wait {
    int32_t descriptor; /* -1: none */
    int32_t events;     /* of poll(2), on the descriptor */
    int32_t timeout_ms; /* -1: no end */
};

/* Called before messages are delivered, again and again: connect, look after a connection, settle
 * what is held. Returns whether messages can be delivered now, and stores what to wait for when
 * not, or when there are none; *wait is {-1, 0, -1} before. It is called again when that happens,
 * when messages have come, and now and then. is_closing: the program ends, so that this is the time
 * for a last attempt. Whoever waits inside delays the messages, nothing else; the end of the
 * program leaves a worker alone that does not come back in time. */
typedef int32_t outlet_tend_function(void* context, struct outlet* outlet, int32_t is_closing,
                                     struct outlet_wait* wait);
/* Takes the oldest message that is not held. Returns an enum outlet_answer (any other number is
 * taken as OUTLET_REFUSE). The message and its data are valid until the call returns, or until it
 * is settled when it is held. */
typedef int32_t outlet_deliver_function(void* context, struct outlet* outlet,
                                        struct outlet_message* message);
/* Called once, when all is sent or the time at the end is over: settle what is known of messages
 * that are held, close. What is held after that is counted as OUTLET_UNACKNOWLEDGED. */
typedef void outlet_end_function(void* context, struct outlet* outlet);

/* Functions of the worker. All are called on its thread. */
struct outlet_owner {
    void* context;
    outlet_tend_function* tend; /* may be NULL: messages can always be delivered */
    outlet_deliver_function* deliver;
    outlet_end_function* end; /* may be NULL */
};

/* What was counted, of the messages that were offered. */
struct outlet_count {
    uint64_t messages;
    uint64_t records;
    uint64_t packets;
    uint64_t bytes;
};
struct outlet_counts {
    struct outlet_count queued;              /* neither sent nor lost yet */
    struct outlet_count fates[OUTLET_FATES]; /* by enum outlet_fate */
};

/* Makes an outlet and starts its worker. owner is copied. capacity: bytes of the ring, in which a
 * message takes its length rounded up to 8, and 48 more; one of more than half of it may never fit.
 * Its memory is used from the first message on, whatever the rate. drain_s: how long the worker may
 * go on at the end of the program, in seconds. The outlet lives for the whole run. To be called in
 * the export's init: the metrics get its labels. Without memory or a thread the program ends
 * (status 102 or 255). */
KX_API struct outlet* outlet_open(const struct outlet_owner* owner, uint64_t capacity,
                                  uint32_t drain_s);

/* Copies the message (its mark does not count) into the ring. Returns 1, or 0 when it did not fit
 * and was counted as lost. Never blocks, and makes a system call only to wake a worker that sleeps.
 * Called by one thread at a time, the record loop's. */
KX_API int32_t outlet_offer(struct outlet* outlet, const struct outlet_message* message);

/* The oldest held message, NULL when there is none. Worker's functions only, like the two below. */
KX_API struct outlet_message* outlet_held(struct outlet* outlet);

/* Ends the oldest held message (enum outlet_fate: one of the first three, or OUTLET_NOT_DRAINED for
 * what was never on its way; any other is taken as OUTLET_UNSENT). Without a held one it does
 * nothing. */
KX_API void outlet_settle(struct outlet* outlet, int32_t fate);

/* Lets all held messages be delivered once more, in their order. */
KX_API void outlet_return(struct outlet* outlet);

/* Reads the counts, one by one while others count. Any thread. */
KX_API void outlet_read_counts(const struct outlet* outlet, struct outlet_counts* counts);

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct outlet_message) == 40);
KX_ASSERT_LAYOUT(offsetof(struct outlet_message, records) == 12);
KX_ASSERT_LAYOUT(offsetof(struct outlet_message, number) == 24);
KX_ASSERT_LAYOUT(offsetof(struct outlet_message, mark) == 32);
KX_ASSERT_LAYOUT(sizeof(struct outlet_wait) == 12);
KX_ASSERT_LAYOUT(sizeof(struct outlet_owner) == 32);
KX_ASSERT_LAYOUT(offsetof(struct outlet_owner, end) == 24);
KX_ASSERT_LAYOUT(sizeof(struct outlet_counts) == 192);

#endif
