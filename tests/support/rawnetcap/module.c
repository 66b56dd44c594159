/* The emulated module: requests, the ring as the program sees it, time-outs. See module.h. */
#include "module.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "capture.h"

enum { PAGE = 4096, VERSION = 0x00040007, NAME_LIMIT = 64 };

static struct {
    const char *answers, *devices, *gate;
    uint64_t idle_every;
    int log;

    int descriptor;
    uint64_t ring_kib, ring_bytes; /* the latter in whole pages */
    void* mapping;                 /* the program's */
    uint32_t snap_length, devices_added;
    uint64_t polls;
    int is_idle; /* the last poll timed out by order */
    int is_started;
    struct capture capture;
} module = {.log = -1, .descriptor = -1};

static uint64_t number(const char* name, uint64_t otherwise) {
    const char* text = getenv(name);
    return text != NULL ? strtoull(text, NULL, 0) : otherwise;
}

void module_log(const char* format, ...) {
    char line[256];
    va_list arguments;
    if (module.log < 0)
        return;
    va_start(arguments, format);
    int length = vsnprintf(line, sizeof line - 1, format, arguments);
    va_end(arguments);
    line[length] = '\n';
    if (write(module.log, line, (size_t)length + 1) < 0)
        abort();
}

/* Whether the list has an item "name=result". */
static int is_answered(const char* name, int* result) {
    const size_t length = strlen(name);
    for (const char* item = module.answers; item != NULL && *item != '\0';) {
        if (strncmp(item, name, length) == 0 && item[length] == '=') {
            *result = (int)strtol(item + length + 1, NULL, 0);
            return 1;
        }
        item = strchr(item, ',');
        item = item != NULL ? item + 1 : NULL;
    }
    return 0;
}

/* Whether the list of devices has the name. */
static int is_device(const char* name) {
    const size_t length = strlen(name);
    for (const char* item = module.devices; item != NULL;) {
        const size_t item_length = strcspn(item, ",");
        if (length == item_length && memcmp(item, name, length) == 0)
            return 1;
        item = item[item_length] != '\0' ? item + item_length + 1 : NULL;
    }
    return 0;
}

/* ---- Requests ---- */

static int add_device(const char* name) {
    if (!is_device(name)) {
        errno = ENODEV;
        return -1;
    }
    module.devices_added += 1;
    return 0;
}

/* Pages of the ring that anybody has read or written so far. */
static unsigned touched_pages(void) {
    static unsigned char pages[1 << 20];
    unsigned count = 0;
    if (module.mapping == NULL || module.ring_bytes / PAGE > sizeof pages ||
        mincore(module.mapping, module.ring_bytes, pages) != 0)
        return 0;
    for (uint64_t page = 0; page < module.ring_bytes / PAGE; ++page)
        count += pages[page] & 1;
    return count;
}

static int start(void) {
    struct capture* capture = &module.capture;
    module_log("ring of %lu pages, %u touched", module.ring_bytes / PAGE, touched_pages());
    capture->ring = (void*)syscall(SYS_mmap, NULL, module.ring_bytes, PROT_READ | PROT_WRITE,
                                   MAP_SHARED, module.descriptor, 0);
    capture->ring_size = module.ring_kib * 1024;
    capture->largest = (uint32_t)number("RAWNETCAP_LARGEST", module.snap_length);
    capture->snap_length = module.snap_length;
    capture->interfaces = module.devices_added > 0 ? module.devices_added : 1;
    capture_open(capture);
    module.is_started = 1;
    return 0;
}

static int next_batch(void) {
    const uint64_t left = module.capture.total - module.capture.sent;
    if (!module.is_started || module.is_idle)
        return 0;
    const int count = capture_fill(&module.capture);
    if (count == 0 && left == 0 && !module.capture.is_drained) {
        module.capture.is_drained = 1;
        module_log("drained %lu frames, %lu wraps, %lu ns", module.capture.sent,
                   module.capture.wraps, module.capture.own_ns);
    }
    return count;
}

static int answer(unsigned long request, const void* argument) {
    switch (request) {
        case 0xFF15:
            return VERSION;
        case 0xFF00:
            return add_device(argument);
        case 0xFF17:
            module.snap_length = (uint32_t)(uintptr_t)argument;
            return 0;
        case 0xFF44:
        case 0xFF03:
            return 0;
        case 0xFF02:
            return (int)number("RAWNETCAP_LARGEST", module.snap_length);
        case 0xFF12:
            return (int)module.ring_kib;
        case 0xFF05:
            return start();
        case 0xFF42:
            return next_batch();
        default:
            errno = ENOTTY;
            return -1;
    }
}

static void log_request(unsigned long request, const void* argument, int result) {
    char text[NAME_LIMIT] = "";
    if (request == 0xFF15)
        snprintf(text, sizeof text, " %s", argument != NULL ? "pointer" : "null");
    else if (request == 0xFF00)
        snprintf(text, sizeof text, " %s", (const char*)argument);
    else if (request == 0xFF17 || request == 0xFF44 || request == 0xFF03)
        snprintf(text, sizeof text, " %lu", (unsigned long)(uintptr_t)argument);
    module_log("ioctl %lx%s = %i", request, text, result);
}

int module_ioctl(unsigned long request, const void* argument) {
    char name[NAME_LIMIT];
    int result;
    snprintf(name, sizeof name, "%lx", request);
    if (is_answered(name, &result))
        errno = EIO;
    else
        result = answer(request, argument);
    const int error = errno;
    log_request(request, argument, result);
    errno = error;
    return result;
}

/* ---- Opening, polling, mapping ---- */

int module_open(int flags) {
    int result;
    const char* log = getenv("RAWNETCAP_LOG");
    module.log = log != NULL ? open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600) : -1;
    module.answers = getenv("RAWNETCAP_ANSWERS");
    module.devices = getenv("RAWNETCAP_DEVICES");
    if (module.devices == NULL)
        module.devices = "eth0,eth1";
    module.gate = getenv("RAWNETCAP_GATE");
    module.idle_every = number("RAWNETCAP_IDLE", 0);
    module.ring_kib = number("RAWNETCAP_RING", 64);
    module.ring_bytes = (module.ring_kib * 1024 + PAGE - 1) / PAGE * PAGE;
    module.snap_length = 2048;
    module.devices_added = 0;
    module.polls = 0;
    module.is_started = module.is_idle = 0;
    capture_close(&module.capture); /* of a reader that has left its device open */
    module_log("open %s", (flags & O_ACCMODE) == O_RDONLY ? "read-only" : "for writing");
    if (is_answered("open", &result)) {
        errno = EBUSY;
        return -1;
    }
    module.descriptor = memfd_create("rawnetcap", MFD_CLOEXEC);
    if (module.descriptor < 0 || ftruncate(module.descriptor, (off_t)module.ring_bytes) != 0)
        abort();
    return module.descriptor;
}

static void sleep_ms(int ms) {
    const struct timespec time = {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1000000L};
    nanosleep(&time, NULL);
}

static int poll_result(struct pollfd* entry, int timeout_ms) {
    int result;
    module.polls += 1;
    module.is_idle = module.idle_every != 0 && module.polls % module.idle_every == 0;
    if (is_answered("poll", &result)) {
        errno = EIO;
        entry->revents = (short)(result > 0 ? result : 0);
        return result > 0 ? 1 : result;
    }
    if (module.gate != NULL && access(module.gate, F_OK) == 0)
        module.gate = NULL;
    module.is_idle |= module.gate != NULL;
    if (module.is_idle || !module.is_started || !capture_wait(&module.capture, timeout_ms)) {
        if (module.is_idle || !module.is_started)
            sleep_ms(timeout_ms);
        entry->revents = 0;
        return 0;
    }
    entry->revents = POLLIN;
    return 1;
}

int module_poll(struct pollfd* entry, int timeout_ms) {
    const int result = poll_result(entry, timeout_ms);
    const int error = errno;
    module_log("poll %s%i ms = %i", entry->events == POLLIN ? "" : "for other events, ", timeout_ms,
               result);
    errno = error;
    return result;
}

/* The ring lies in front of a page that nobody may read. */
void* module_mmap(size_t size, int protection, int flags, off_t offset) {
    int result;
    module_log("mmap %lu prot %i flags %i at %li", size, protection, flags, (long)offset);
    if (is_answered("mmap", &result)) {
        errno = ENOMEM;
        return result == 0 ? NULL : MAP_FAILED;
    }
    if (size > module.ring_bytes) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    char* const room = (void*)syscall(SYS_mmap, NULL, module.ring_bytes + PAGE, PROT_NONE,
                                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    module.mapping = (void*)syscall(SYS_mmap, room, size, protection, flags | MAP_FIXED,
                                    module.descriptor, offset);
    return module.mapping;
}

int module_munmap(void* address, size_t size) {
    module_log("munmap %lu", size);
    module.mapping = NULL;
    return (int)syscall(SYS_munmap, address, size + PAGE);
}

int module_close(void) {
    module_log("close");
    capture_close(&module.capture);
    const int descriptor = module.descriptor;
    module.descriptor = -1;
    return (int)syscall(SYS_close, descriptor);
}

int module_descriptor(void) {
    return module.descriptor;
}

int module_maps(const void* address) {
    return module.mapping != NULL && address == module.mapping;
}
