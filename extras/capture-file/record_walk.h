// The walk over the records of a classic pcap file whose bytes lie in memory: micro- or
// nanoseconds, either byte order, version 2.4. Gives what libpcap gives for the same bytes, in
// place, as long as records are whole and sound; at anything else it stops, and libpcap goes on
// from there. The thread that reads; no byte outside the memory is touched.
//
// Cost of a record: its header, a look at the 16 bytes after it (which are the next header), and
// one branch that is hard to foretell where lengths vary.
#pragma once

#include <pcap/pcap.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace capture_file {

constexpr size_t walk_file_header = 24;    // bytes
constexpr size_t walk_record_header = 16;  // bytes
// Bytes that are fetched ahead of the walk: across the end of a page the hardware does not. A
// fetch past the mapping is no access.
constexpr size_t walk_ahead = 4096;
// libpcap takes no longer frames of the link types that we know.
constexpr uint32_t walk_longest_frame = 256 * 1024;

struct record_walk {
    const uint8_t* data;   // of the whole file
    size_t size;           // bytes
    size_t at;             // the next record
    uint32_t snap_length;  // longer frames are cut to it, as libpcap does; not above the longest
    bool is_swapped;       // the file has the other byte order
    bool is_in_ns;         // the fractions of its times; else in us
};

enum class walk_step {
    record,    // a whole one
    unproven,  // the same, but zero bytes follow, or none: the file may have been cut meanwhile
    rest       // no whole and sound record begins here
};

struct walked {
    pcap_pkthdr header;  // nanoseconds in the place of microseconds
    const uint8_t* frame;
    size_t end;  // where the next record begins
};

// Whether a file that begins with these bytes, walk_file_header of them, can be walked; fills the
// walk but for the snap length. Everything else is libpcap's.
bool walk_start(const uint8_t* data, size_t size, record_walk& walk);

// Takes over what libpcap says is the longest that the file has of a frame.
void walk_cut_frames(record_walk& walk, int snap_length);

inline uint32_t walk_word(const record_walk& walk, size_t at) {
    uint32_t word;
    std::memcpy(&word, walk.data + at, sizeof word);
    return walk.is_swapped ? __builtin_bswap32(word) : word;
}

// libpcap takes the fraction as signed in this machine's byte order, as unsigned in the other one.
inline int64_t walk_fraction_ns(const record_walk& walk, size_t at) {
    const uint32_t word = walk_word(walk, at);
    const int64_t fraction = walk.is_swapped ? int64_t{word} : int64_t{static_cast<int32_t>(word)};
    return walk.is_in_ns ? fraction : fraction * 1000;
}

// Whether the record that ends there is followed by another header. Sound ones are not zero, but
// what a cut left of its last page is, and so are lost pages.
inline bool walk_is_followed(const record_walk& walk, size_t end) {
    if (walk.size - end < walk_record_header)
        return false;
    uint64_t words[2];
    std::memcpy(words, walk.data + end, sizeof words);
    return (words[0] | words[1]) != 0;
}

// Looks at the record that begins at walk.at. Who takes it moves on to its end.
inline walk_step walk_look(const record_walk& walk, walked& record) {
    __builtin_prefetch(walk.data + walk.at + walk_ahead);
    const size_t left = walk.size - walk.at;
    if (left < walk_record_header) [[unlikely]]
        return walk_step::rest;
    const uint32_t captured = walk_word(walk, walk.at + 8);
    if (captured > walk_longest_frame || captured > left - walk_record_header) [[unlikely]]
        return walk_step::rest;
    record.header.ts.tv_sec = walk_word(walk, walk.at);
    record.header.ts.tv_usec = walk_fraction_ns(walk, walk.at + 4);
    record.header.caplen = captured > walk.snap_length ? walk.snap_length : captured;
    record.header.len = walk_word(walk, walk.at + 12);
    record.frame = walk.data + walk.at + walk_record_header;
    record.end = walk.at + walk_record_header + captured;
    return walk_is_followed(walk, record.end) ? walk_step::record : walk_step::unproven;
}

}  // namespace capture_file
