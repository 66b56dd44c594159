#include "capture_stream.h"

#include <fcntl.h>
#include <kestrelexp/flow.h>
#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace capture_file {
namespace {

constexpr int wait_ms = 10;
constexpr size_t buffer_bytes = 256 * 1024;

// The cookie of a stream is its descriptor, plus one so that none is null.
void* cookie_of(int descriptor) {
    return reinterpret_cast<void*>(intptr_t{descriptor} + 1);
}
int descriptor_of(void* cookie) {
    return static_cast<int>(reinterpret_cast<intptr_t>(cookie) - 1);
}

bool is_interrupted = false;

bool is_flush_wanted() {
    return __atomic_load_n(&queue_force_flush, __ATOMIC_RELAXED) != 0;
}

// Nothing yet: time is up, or a signal came in between.
bool is_pending(int ready) {
    return ready == 0 || (ready < 0 && errno == EINTR);
}

// Waits for bytes; false when the program wants to end first. Regular files are always ready.
bool wait_for(int descriptor) {
    pollfd readable{descriptor, POLLIN, 0};
    while (is_pending(poll(&readable, 1, wait_ms))) {
        if (is_flush_wanted()) {
            is_interrupted = true;
            return false;
        }
    }
    return true;  // or a fault, which the read will tell of
}

ssize_t read_some(void* cookie, char* to, size_t size) {
    const int descriptor = descriptor_of(cookie);
    return wait_for(descriptor) ? read(descriptor, to, size) : 0;
}

int close_stream(void* cookie) {
    return close(descriptor_of(cookie));
}

}  // namespace

std::FILE* open_stream(const char* path) {
    const bool is_standard_input = std::strcmp(path, "-") == 0;
    const int descriptor =
        is_standard_input ? dup(STDIN_FILENO) : open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0)
        return nullptr;
    std::FILE* stream =
        fopencookie(cookie_of(descriptor), "r",
                    {.read = read_some, .write = nullptr, .seek = nullptr, .close = close_stream});
    if (!stream) {
        close(descriptor);
        return nullptr;
    }
    // Packets are small: a large buffer saves system calls, and one thread alone reads.
    (void)std::setvbuf(stream, nullptr, _IOFBF, buffer_bytes);
    (void)__fsetlocking(stream, FSETLOCKING_BYCALLER);
    return stream;
}

bool was_interrupted() {
    return is_interrupted;
}

}  // namespace capture_file
