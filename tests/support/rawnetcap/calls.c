/* Stands between a program and the C library, preloaded or linked in: what the program does with
 * /dev/rawnetcap goes to the emulated module (module.h), everything else on to the next definition
 * of the call. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "module.h"

#define DEVICE "/dev/rawnetcap"

/* The C library declares that poll() only writes to its entries. */
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

/* Finds the call's next definition, the first time. */
#define NEXT(pointer, name)                               \
    do {                                                  \
        if ((pointer) == NULL) {                          \
            void* const found = dlsym(RTLD_NEXT, (name)); \
            memcpy(&(pointer), &found, sizeof found);     \
        }                                                 \
    } while (0)

static int last_descriptor = -1; /* of the device, once it is closed */

static int is_device(int descriptor) {
    return descriptor >= 0 && descriptor == module_descriptor();
}

static int mode_of(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, int) : 0;
}

int open(const char* path, int flags, ...) {
    static int (*next)(const char*, int, ...);
    va_list arguments;
    if (strcmp(path, DEVICE) == 0)
        return last_descriptor = module_open(flags);
    NEXT(next, "open");
    va_start(arguments, flags);
    const int mode = mode_of(flags, arguments);
    va_end(arguments);
    return next(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    static int (*next)(int, const char*, int, ...);
    va_list arguments;
    if (strcmp(path, DEVICE) == 0)
        return last_descriptor = module_open(flags);
    NEXT(next, "openat");
    va_start(arguments, flags);
    const int mode = mode_of(flags, arguments);
    va_end(arguments);
    return next(directory, path, flags, mode);
}

int ioctl(int descriptor, unsigned long request, ...) {
    static int (*next)(int, unsigned long, ...);
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (is_device(descriptor))
        return module_ioctl(request, argument);
    NEXT(next, "ioctl");
    return next(descriptor, request, argument);
}

int poll(struct pollfd* entries, nfds_t count, int timeout_ms) {
    static int (*next)(struct pollfd*, nfds_t, int);
    if (count == 1 && is_device(entries[0].fd))
        return module_poll(entries, timeout_ms);
    NEXT(next, "poll");
    return next(entries, count, timeout_ms);
}

void* mmap(void* address, size_t size, int protection, int flags, int descriptor, off_t offset) {
    static void* (*next)(void*, size_t, int, int, int, off_t);
    if (is_device(descriptor))
        return module_mmap(size, protection, flags, offset);
    NEXT(next, "mmap");
    return next(address, size, protection, flags, descriptor, offset);
}

int munmap(void* address, size_t size) {
    static int (*next)(void*, size_t);
    if (module_maps(address))
        return module_munmap(address, size);
    NEXT(next, "munmap");
    return next(address, size);
}

int close(int descriptor) {
    static int (*next)(int);
    if (is_device(descriptor))
        return module_close();
    NEXT(next, "close");
    const int result = next(descriptor);
    if (result != 0 && errno == EBADF && descriptor >= 0 && descriptor == last_descriptor) {
        module_log("close again");
        errno = EBADF;
    }
    return result;
}
