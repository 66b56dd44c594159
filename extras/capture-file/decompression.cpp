#include "decompression.h"

#include <fcntl.h>
#include <kestrelexp/service.h>
#include <poll.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace capture_file {
namespace {

constexpr int wait_ms = 10;
constexpr size_t buffer_bytes = size_t{256} * 1024;
constexpr int pipe_bytes = 1024 * 1024;
constexpr const char* broken_off = "unexpected end of file";

enum class transfer { done, ended, failed, stopped };

// Nothing yet: time is up, or a signal came in between.
bool is_pending(int ready) {
    return ready == 0 || (ready < 0 && errno == EINTR);
}

// Waits until the descriptor can be used, or nobody wants that any more.
bool wait_for(const decompression& self, int descriptor, short event) {
    pollfd wanted{descriptor, event, 0};
    do {
        if (self.is_stopped.load(std::memory_order_relaxed))
            return false;
    } while (is_pending(poll(&wanted, 1, wait_ms)));
    return true;  // or a fault, which the transfer will tell of
}

// The next compressed bytes.
transfer read_piece(decompression& self, uint8_t* to, size_t& size) {
    if (self.head.size > 0) {
        size = self.head.size;
        std::memcpy(to, self.head.bytes, size);
        self.head.size = 0;
        return transfer::done;
    }
    if (!wait_for(self, self.source, POLLIN))
        return transfer::stopped;
    const ssize_t result = read(self.source, to, buffer_bytes);
    if (result < 0)
        return transfer::failed;
    size = static_cast<size_t>(result);
    return size > 0 ? transfer::done : transfer::ended;
}

// Returns whether the reader still wants bytes. The pipe does not block.
bool write_piece(const decompression& self, const uint8_t* from, size_t size) {
    while (size > 0) {
        if (!wait_for(self, self.pipe, POLLOUT))
            return false;
        const ssize_t result = write(self.pipe, from, size);
        if (result < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        const auto written = static_cast<size_t>(std::max<ssize_t>(result, 0));
        from += written;
        size -= written;
    }
    return true;
}

// What a decoder makes of the bytes in hand.
struct decoded {
    size_t taken;       // bytes of the input
    size_t given;       // bytes of the output; less than there is room for: it wants more input
    bool is_between;    // a member or frame has ended and no other has begun
    const char* fault;  // or null
};

struct piece {
    const uint8_t* data;
    size_t size;
};

using decode_function = decoded(void* state, piece input, uint8_t* output);

// Feeds the decoder up to the end of the source. Returns what was wrong, or null.
const char* run(decompression& self, decode_function* decode, void* state) {
    auto* const input = static_cast<uint8_t*>(malloc_wrapper(2 * buffer_bytes, 0));
    uint8_t* const output = input + buffer_bytes;
    const char* fault = nullptr;
    decoded last{};
    for (bool goes_on = true; goes_on && !fault;) {
        size_t size = 0;
        const transfer result = read_piece(self, input, size);
        if (result != transfer::done) {
            fault = result == transfer::failed                      ? strerrordesc_np(errno)
                    : result == transfer::ended && !last.is_between ? broken_off
                                                                    : nullptr;
            break;
        }
        piece left{input, size};
        do {
            last = decode(state, left, output);
            left = {left.data + last.taken, left.size - last.taken};
            goes_on = write_piece(self, output, last.given);
            fault = last.fault;
        } while (goes_on && !fault &&
                 (left.size > 0 || (last.given == buffer_bytes && !last.is_between)));
    }
    std::free(input);
    return fault;
}

struct gzip_state {
    z_stream stream;
    bool is_between;  // members
};

// Zeros may follow a member, as on tapes and in files that were filled up.
size_t zeros_before(piece input) {
    return static_cast<size_t>(
        std::find_if(input.data, input.data + input.size, [](uint8_t byte) { return byte != 0; }) -
        input.data);
}

decoded decode_gzip(void* context, piece input, uint8_t* output) {
    auto& state = *static_cast<gzip_state*>(context);
    const size_t padding = state.is_between ? zeros_before(input) : 0;
    if (padding == input.size && padding > 0)
        return {padding, 0, true, nullptr};
    z_stream& stream = state.stream;
    stream.next_in = const_cast<uint8_t*>(input.data + padding);
    stream.avail_in = static_cast<unsigned>(input.size - padding);
    stream.next_out = output;
    stream.avail_out = buffer_bytes;
    const int result = inflate(&stream, Z_NO_FLUSH);
    const size_t given = buffer_bytes - stream.avail_out;
    state.is_between = result == Z_STREAM_END;
    if (state.is_between)
        (void)inflateReset(&stream);  // fails for no stream of ours
    const bool is_good = result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR;
    const char* const words = stream.msg ? stream.msg : zError(result);
    return {input.size - stream.avail_in, given, state.is_between, is_good ? nullptr : words};
}

const char* run_gzip(decompression& self) {
    constexpr int gzip_alone = 16;
    gzip_state state{};
    if (inflateInit2(&state.stream, MAX_WBITS + gzip_alone) != Z_OK)
        return zError(Z_MEM_ERROR);
    const char* const fault = run(self, decode_gzip, &state);
    (void)inflateEnd(&state.stream);
    return fault;
}

decoded decode_zstd(void* context, piece input, uint8_t* output) {
    ZSTD_inBuffer from{input.data, input.size, 0};
    ZSTD_outBuffer to{output, buffer_bytes, 0};
    const size_t result = ZSTD_decompressStream(static_cast<ZSTD_DStream*>(context), &to, &from);
    const char* const fault = ZSTD_isError(result) != 0 ? ZSTD_getErrorName(result) : nullptr;
    return {from.pos, to.pos, result == 0, fault};
}

const char* run_zstd(decompression& self) {
    ZSTD_DStream* const stream = ZSTD_createDStream();
    if (!stream)
        return "no memory";
    const char* const fault = run(self, decode_zstd, stream);
    (void)ZSTD_freeDStream(stream);
    return fault;
}

}  // namespace

struct compression {
    const char* name;
    uint8_t bytes[sizeof(stream_head::bytes)];  // that it begins with, as far as the mask says
    uint8_t mask[sizeof(stream_head::bytes)];
    const char* (*run)(decompression& self);
};

namespace {

constexpr compression compressions[] = {
    {"gzip", {0x1F, 0x8B}, {0xFF, 0xFF}, run_gzip},                          // RFC 1952
    {"zstd", {0x28, 0xB5, 0x2F, 0xFD}, {0xFF, 0xFF, 0xFF, 0xFF}, run_zstd},  // RFC 8878
    {"zstd", {0x50, 0x2A, 0x4D, 0x18}, {0xF0, 0xFF, 0xFF, 0xFF}, run_zstd},  // one to skip
};

bool begins_with(const stream_head& head, const compression& kind) {
    for (size_t n = 0; n < sizeof head.bytes; ++n)
        if ((head.bytes[n] & kind.mask[n]) != kind.bytes[n])
            return false;
    return true;
}

void* run_thread(void* argument) {
    auto& self = *static_cast<decompression*>(argument);
    (void)pthread_setname_np(pthread_self(), "decompression");  // a name for top -H, no more
    self.fault = self.kind->run(self);
    (void)close(self.pipe);  // the end of what was written
    return nullptr;
}

// Signals are for other threads.
int start_without_signals(decompression& self) {
    sigset_t all, before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_BLOCK, &all, &before);
    const int fault = pthread_create(&self.thread, nullptr, run_thread, &self);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return fault;
}

}  // namespace

const compression* compression_of(const stream_head& head) {
    const auto* const found = std::find_if(std::begin(compressions), std::end(compressions),
                                           [&](auto& kind) { return begins_with(head, kind); });
    return found == std::end(compressions) ? nullptr : found;
}

const char* compression_name(const compression& kind) {
    return kind.name;
}

int decompression_start(decompression& self, const compression& kind, int source,
                        const stream_head& head) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        (void)close(source);
        return -1;
    }
    (void)fcntl(ends[1], F_SETPIPE_SZ, pipe_bytes);  // fewer switches; less does too
    (void)fcntl(ends[1], F_SETFL, O_NONBLOCK);
    self.kind = &kind;
    self.source = source;
    self.pipe = ends[1];
    self.head = head;
    if (const int fault = start_without_signals(self); fault != 0) {
        self.kind = nullptr;
        (void)close(source);
        (void)close(ends[0]);
        (void)close(ends[1]);
        errno = fault;
        return -1;
    }
    return ends[0];
}

const char* decompression_end(decompression& self) {
    if (self.kind != nullptr && !self.is_stopped.exchange(true, std::memory_order_relaxed)) {
        (void)pthread_join(self.thread, nullptr);
        (void)close(self.source);
    }
    return self.fault;
}

}  // namespace capture_file
