#include "capture_stream.h"

#include <fcntl.h>
#include <kestrelexp/flow.h>
#include <kestrelexp/service.h>
#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace capture_file {
namespace {

constexpr int wait_ms = 10;
constexpr size_t buffer_bytes = size_t{256} * 1024;

// What is under a stream.
struct source {
    int descriptor;
    off64_t position;  // bytes read
    stream_head head;  // read before, and not yet given out
};

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

ssize_t take_head(source& self, char* to, size_t size) {
    const size_t taken = std::min(size, self.head.size);
    std::memcpy(to, self.head.bytes, taken);
    self.head.size -= taken;
    std::memmove(self.head.bytes, self.head.bytes + taken, self.head.size);
    self.position += static_cast<off64_t>(taken);
    return static_cast<ssize_t>(taken);
}

ssize_t read_some(void* cookie, char* to, size_t size) {
    auto& self = *static_cast<source*>(cookie);
    if (self.head.size > 0)
        return take_head(self, to, size);
    if (!wait_for(self.descriptor))
        return 0;
    const ssize_t result = read(self.descriptor, to, size);
    self.position += result > 0 ? result : 0;
    return result;
}

// Tells the position, of a pipe too, or goes to another one.
int seek_position(void* cookie, off64_t* offset, int whence) {
    auto& self = *static_cast<source*>(cookie);
    if (whence != SEEK_CUR || *offset != 0) {
        const off64_t reached = lseek64(self.descriptor, *offset, whence);
        if (reached < 0)
            return -1;
        self.position = reached;
        self.head.size = 0;
    }
    *offset = self.position;
    return 0;
}

int close_stream(void* cookie) {
    const int result = close(static_cast<source*>(cookie)->descriptor);
    std::free(cookie);
    return result;
}

}  // namespace

int open_bytes(const char* path) {
    // Without O_NONBLOCK a FIFO is not open before it has a writer, and no interrupt would end
    // that. With it, wait_for() waits for the writer as for any bytes.
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (descriptor >= 0)
        (void)fcntl(descriptor, F_SETFL, O_RDONLY);  // reads come after a wait, as they always did
    return descriptor;
}

int open_standard_input() {
    return dup(STDIN_FILENO);
}

stream_head read_head(int descriptor) {
    stream_head head{};
    ssize_t result = 0;
    while (head.size < sizeof head.bytes && wait_for(descriptor) &&
           (result = read(descriptor, head.bytes + head.size, sizeof head.bytes - head.size)) > 0)
        head.size += static_cast<size_t>(result);
    return head;  // a fault comes again with the next read
}

std::FILE* make_stream(int descriptor, const stream_head& head) {
    if (descriptor < 0)
        return nullptr;
    auto* self = static_cast<source*>(malloc_wrapper(sizeof(source), 1));
    self->descriptor = descriptor;
    self->head = head;
    std::FILE* stream = fopencookie(
        self, "r",
        {.read = read_some, .write = nullptr, .seek = seek_position, .close = close_stream});
    if (!stream) {
        (void)close_stream(self);  // the caller hears of the stream
        return nullptr;
    }
    // Packets are small: a large buffer saves system calls, and one thread alone reads.
    (void)std::setvbuf(stream, nullptr, _IOFBF, buffer_bytes);
    (void)__fsetlocking(stream, FSETLOCKING_BYCALLER);
    return stream;
}

bool is_interrupt_pending() {
    return is_flush_wanted();
}

bool was_interrupted() {
    return is_interrupted;
}

}  // namespace capture_file
