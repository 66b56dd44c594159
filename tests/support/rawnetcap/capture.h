/* The capturing half of the emulated module: frames of a pcap file, written into the ring record by
 * record. See module.h for the settings. */
#ifndef RAWNETCAP_CAPTURE_H
#define RAWNETCAP_CAPTURE_H

#include <stdint.h>
#include <time.h>

struct captured_frame {
    const uint8_t* data;
    uint32_t captured, wire;
};

struct capture {
    /* Set before capture_open. */
    uint8_t* ring; /* writable */
    uint64_t ring_size;
    uint32_t largest, snap_length; /* bytes of frame data */
    uint32_t interfaces;

    uint8_t* file; /* the pcap file as it stands */
    struct captured_frame* frames;
    uint64_t frame_count;
    uint64_t total, sent; /* frames */
    uint64_t batch, rate;
    uint64_t lie_at;
    long lie_length;
    int64_t fixed_s, fixed_ns; /* time of every record; fixed_s < 0: the clock's */
    int64_t started_ns;

    uint64_t write_offset, wraps;
    uint64_t own_ns; /* processor time spent in filling */
    int is_drained;
};

/* Reads settings and frames. */
void capture_open(struct capture* capture);
/* Waits until a batch (or what is left) can be had. Returns 0 when the time is up first. */
int capture_wait(struct capture* capture, int timeout_ms);
/* Takes the last batch back and writes the next one. Returns its records. */
int capture_fill(struct capture* capture);
void capture_close(struct capture* capture);

#endif
