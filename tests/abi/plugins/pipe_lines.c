/* An export that writes a line for each flow into a named pipe (params: its path), whether or not
 * anybody reads there. The pipe is opened, and written to, by the worker of an outlet. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

#include "kestrelexp/outlet.h"
#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_EXPORT;

enum { QUEUE_BYTES = 16384, RETRY_MS = 20, DRAIN_S = 1 };

struct lines {
    const char* path;
    int pipe; /* the worker's; -1: nobody reads */
    struct outlet* outlet;
};

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"pipe-lines", "Lines into a pipe", 0, 0};
    return &description;
}

static int32_t tend(void* context, struct outlet* outlet, int32_t is_closing,
                    struct outlet_wait* wait) {
    struct lines* const self = context;
    (void)outlet, (void)is_closing;
    if (self->pipe < 0)
        self->pipe = open(self->path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    wait->timeout_ms = RETRY_MS;
    if (self->pipe < 0)
        return 0;
    struct pollfd room = {self->pipe, POLLOUT, 0};
    (void)poll(&room, 1, 0);
    if ((room.revents & POLLERR) != 0) {
        (void)close(self->pipe);
        self->pipe = -1;
        return 0;
    }
    wait->descriptor = self->pipe;
    wait->events = POLLOUT;
    return (room.revents & POLLOUT) != 0;
}

/* Lines are shorter than PIPE_BUF, so the pipe takes each whole or not at all. */
static int32_t deliver(void* context, struct outlet* outlet, struct outlet_message* message) {
    struct lines* const self = context;
    (void)outlet;
    return write(self->pipe, message->data, message->length) > 0 ? OUTLET_DONE : OUTLET_LATER;
}

void* plugin_export_init(char* params, struct getter* getters) {
    static struct lines self = {NULL, -1, NULL};
    const struct outlet_owner owner = {&self, tend, deliver, NULL};
    (void)getters;
    self.path = params;
    self.outlet = outlet_open(&owner, QUEUE_BYTES, DRAIN_S);
    return &self;
}

uint32_t plugin_export_export(void* instance, struct flow_record* record) {
    const struct lines* const self = instance;
    char line[64];
    const int length =
        snprintf(line, sizeof line, "%" PRIu32 " %" PRIu32 "\n", record->packets, record->bytes);
    const struct outlet_message message = {line, (uint32_t)length, 1, record->packets, 0, 0};
    return outlet_offer(self->outlet, &message) ? 0 : UINT32_C(0xFFFFFFFF);
}

uint32_t plugin_export_flush(void* instance) {
    (void)instance;
    return 0;
}
