/* Outlets: one message is put off, held, returned and settled by a worker of our own. The plugin
 * "pipe_lines" is tested over a whole run. */
#include <poll.h>
#include <string.h>

#include "everything.h"
#include "kestrelexp/outlet.h"

struct sink {
    int calls;
    int is_returned;
};

static int32_t tend(void* context, struct outlet* outlet, int32_t is_closing,
                    struct outlet_wait* wait) {
    struct sink* const sink = context;
    CHECK(is_closing == 0);
    CHECK(wait->descriptor == -1 && wait->events == 0 && wait->timeout_ms == -1);
    if (outlet_held(outlet) == NULL)
        return 1;
    if (!sink->is_returned)
        outlet_return(outlet);
    else
        outlet_settle(outlet, OUTLET_UNACKNOWLEDGED);
    sink->is_returned = 1;
    return 1;
}

static int32_t deliver(void* context, struct outlet* outlet, struct outlet_message* message) {
    struct sink* const sink = context;
    (void)outlet;
    CHECK(message->length == 5 && memcmp(message->data, "hello", 5) == 0);
    CHECK(message->records == 2 && message->packets == 7 && message->number == 99);
    return ++sink->calls == 1 ? OUTLET_LATER : OUTLET_KEEP;
}

void check_outlets(void) {
    static struct sink sink;
    static char text[] = "hello";
    const struct outlet_owner owner = {&sink, tend, deliver, NULL};
    const struct outlet_message message = {text, 5, 2, 7, 99, 0};
    const struct outlet_message too_long = {text, 5000, 3, 8, 0, 0};
    struct outlet_counts counts;
    struct outlet* const outlet = outlet_open(&owner, 4096, 1);
    CHECK(outlet_offer(outlet, &too_long) == 0);
    CHECK(outlet_offer(outlet, &message) == 1);
    for (int n = 0; n < 10000; ++n) {
        outlet_read_counts(outlet, &counts);
        if (counts.fates[OUTLET_UNACKNOWLEDGED].messages != 0)
            break;
        (void)poll(NULL, 0, 1);
    }
    CHECK(counts.fates[OUTLET_UNACKNOWLEDGED].records == 2);
    CHECK(counts.fates[OUTLET_UNACKNOWLEDGED].packets == 7);
    CHECK(counts.fates[OUTLET_QUEUE_FULL].records == 3);
    CHECK(counts.fates[OUTLET_QUEUE_FULL].packets == 8);
    CHECK(counts.fates[OUTLET_SENT].messages == 0);
    CHECK(counts.queued.messages == 0);
    CHECK(sink.calls == 3);
}
