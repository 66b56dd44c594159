// The rawnetcap device from within: the requests that it understands, and the context after the
// functions of kestrelexp/rawnetcap.h. Nothing here knows of plugins.
#pragma once

#include <poll.h>

#include <cstdint>

#include "base/message_limit.h"
#include "kestrelexp/rawnetcap.h"

namespace kestrel {

// ioctl numbers, in the order of use. Results are non-negative, unless the request failed.
enum class rawnetcap_request : unsigned long {
    version = 0xFF15,          // takes a pointer to the context; result >> 16 is the major version
    add_device = 0xFF00,       // takes a name; 0 = added
    set_snap_length = 0xFF17,  // takes bytes
    set_cache_size = 0xFF44,   // takes KiB
    largest_record = 0xFF02,   // result: bytes of frame data in the largest record
    ring_size = 0xFF12,        // result: KiB
    set_sampling = 0xFF03,     // takes the sampling value
    start = 0xFF05,            // 0 = capturing
    records_ready = 0xFF42,    // result: records that can be read; gives the last batch back
};

}  // namespace kestrel

// Invariant once the ring is mapped: a record of the largest size fits at read_offset, which is a
// multiple of 8.
struct rawnetcap_context {
    int descriptor = -1;             // -1: not open, or given back
    pollfd readable{-1, POLLIN, 0};  // poll() merely waits while the descriptor is negative
    const uint8_t* ring = nullptr;
    uint64_t largest_record = 0;  // bytes of frame data
    uint64_t ring_size = 0;       // bytes
    uint64_t read_offset = 0;     // of the next record, bytes
    uint64_t records_left = 0;    // of the batch that the module has announced
    uint8_t touched = 0;          // sum of all bytes of the ring, for the sake of reading them
    kestrel::message_limit fault_limit;
    bool failing = false;  // an error was reported, and no record has come since
    bool can_read = true;  // the last attempt to get records met no error
};
