// Frames of a capture file, one after the other, as they lie in the file: a regular classic pcap
// file is mapped and walked in place, everything else (pcapng, pipes, standard input, old
// versions, what is compressed) is read by libpcap. libpcap reads every file's header and has the
// last word on each: at the first record that is not whole and sound the walk ends and libpcap
// reads on from there.
//
// Opened on the main thread, then used by the thread that reads.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>

#include "decompression.h"
#include "mapped_file.h"
#include "record_walk.h"

namespace capture_file {

struct capture_reader {
    const char* path;  // "-": standard input
    pcap_t* handle;
    bool is_walking;  // else libpcap reads
    bool has_filter;
    bool has_broken_off;  // frames are missing at the end, and it was said
    uint64_t frames;      // that the filter left
    record_walk walk;
    size_t look_around_at;  // where the walk makes pages ready and looks whether it is to end
    mapped_file file;
    bpf_program filter;
    decompression source;
};

// A frame as the file has it. A mapped one stays where it is, another one is valid until the next
// is asked for.
struct captured_frame {
    pcap_pkthdr header;  // nanoseconds in the place of microseconds
    const uint8_t* data;
};

enum class reading {
    frame,
    pause,  // none was found yet and an interrupt waits to be served
    end
};

// Whether the file could be opened and its frames be read; says why not, but for an interrupt.
bool reader_open(capture_reader& self, const char* path);

// Reads only frames that match the expression in the file; as above.
bool reader_set_filter(capture_reader& self, const char* path);

// Whatever of it was opened.
void reader_close(capture_reader& self);

// As messages have it.
const char* reader_path(const capture_reader& self);

// The slow roads of reader_next.
reading reader_next_of_libpcap(capture_reader& self, captured_frame& frame);
reading reader_leave_walk(capture_reader& self, captured_frame& frame);

// Once in a megabyte or two. Returns whether the walk goes on.
bool reader_look_around(capture_reader& self);

inline bool reader_wants(const capture_reader& self, const walked& record) {
    return !self.has_filter || bpf_filter(self.filter.bf_insns, record.frame, record.header.len,
                                          record.header.caplen) != 0;
}

inline reading reader_next(capture_reader& self, captured_frame& frame) {
    if (!self.is_walking) [[unlikely]]
        return reader_next_of_libpcap(self, frame);
    for (;;) {
        if (self.walk.at >= self.look_around_at && !reader_look_around(self)) [[unlikely]]
            return reading::pause;
        walked record;
        const walk_step step = walk_look(self.walk, record);
        if (step != walk_step::record) [[unlikely]]
            if (step == walk_step::rest || !mapping_has(self.file, record.end))
                return reader_leave_walk(self, frame);
        self.walk.at = record.end;
        if (!reader_wants(self, record)) [[unlikely]]
            continue;
        self.frames += 1;
        frame = {record.header, record.frame};
        return reading::frame;
    }
}

}  // namespace capture_file
