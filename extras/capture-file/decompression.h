// A compressed capture as the bytes that it holds: a thread of its own takes them out, by zlib or
// libzstd, and writes them into a pipe. What is compressed is told by its first bytes and not by
// its name. Members and frames that follow one another are one capture.
//
// Started on the main thread, ended by the thread that reads.
#pragma once

#include <pthread.h>

#include <atomic>

#include "capture_stream.h"

namespace capture_file {

struct compression;  // how a kind of compressed file is told and read

struct decompression {
    const compression* kind;  // null: there is none
    int source;               // what is read
    int pipe;                 // what is written; closed at the end
    stream_head head;         // read from the source before
    pthread_t thread;
    std::atomic<bool> is_stopped;  // the reader wants no more; carries nothing with it: relaxed
    const char* fault;             // the library's words, or null; the thread's up to its end
};

// The compression of bytes that begin so; null: none that is known.
const compression* compression_of(const stream_head& head);

// "gzip" or "zstd".
const char* compression_name(const compression& kind);

// Starts the thread. Returns the descriptor that gives the bytes, or -1; errno says why.
int decompression_start(decompression& self, const compression& kind, int source,
                        const stream_head& head);

// Ends the thread, wherever it is. Returns what was wrong with the compressed bytes, or null. May
// be called again.
const char* decompression_end(decompression& self);

}  // namespace capture_file
