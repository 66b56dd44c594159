// The bytes of a capture or filter file, as a stream that libpcap and others read from. What has to
// be waited for (the writer of a FIFO, bytes of a pipe or a terminal) is waited for in short steps,
// so that an interrupt of the program ends the wait.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace capture_file {

// Open a file, or standard input, for reading. -1 when that cannot be done; errno says why.
int open_bytes(const char* path);
int open_standard_input();

// The first bytes of a file, by which it is told what it is.
struct stream_head {
    uint8_t bytes[4];  // the rest is zero
    size_t size;
};

// Reads them, as many as there are.
stream_head read_head(int descriptor);

// A stream over what was opened, which it closes at its end; null for -1. The head comes first.
// ftell() tells how many bytes have been read from it. A regular file can be gone through in any
// order.
std::FILE* make_stream(int descriptor, const stream_head& head = {});

// Whether an interrupt waits to be served, for loops that do not read from a stream.
bool is_interrupt_pending();

// Whether an interrupt ended a wait, and with it the stream. For the thread that reads.
bool was_interrupted();

}  // namespace capture_file
