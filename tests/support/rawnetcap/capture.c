/* Frames into the ring; see capture.h. A pcap file is taken in the byte order of this machine, with
 * microseconds or nanoseconds: its times are not used. */
#include "capture.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

enum {
    PCAP_HEADER = 24,
    PCAP_FRAME_HEADER = 16,
    NS_PER_MS = 1000000,
    NS_PER_S = 1000000000,
    NOT_READ = 0xDEAD
};

struct ring_record {
    uint32_t seconds, nanoseconds;
    uint16_t captured, wire, interface, not_read;
};

static uint64_t number(const char* name, uint64_t otherwise) {
    const char* text = getenv(name);
    return text != NULL ? strtoull(text, NULL, 0) : otherwise;
}

static int64_t clock_ns(clockid_t clock) {
    struct timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * (int64_t)NS_PER_S + now.tv_nsec;
}

/* ---- The file ---- */

static uint8_t* read_file(const char* path, size_t* size) {
    FILE* file = fopen(path, "rb");
    if (file == NULL || fseek(file, 0, SEEK_END) != 0) {
        perror(path);
        abort();
    }
    *size = (size_t)ftell(file);
    rewind(file);
    uint8_t* bytes = malloc(*size);
    if (bytes == NULL || fread(bytes, 1, *size, file) != *size)
        abort();
    fclose(file);
    return bytes;
}

static uint32_t word_at(const uint8_t* at) {
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return word;
}

static void read_frames(struct capture* capture, const char* path) {
    size_t size;
    capture->file = read_file(path, &size);
    if (size < PCAP_HEADER ||
        (word_at(capture->file) != 0xA1B2C3D4 && word_at(capture->file) != 0xA1B23C4D))
        abort();
    capture->frames = malloc(size / PCAP_FRAME_HEADER * sizeof *capture->frames);
    for (size_t at = PCAP_HEADER; at + PCAP_FRAME_HEADER <= size;) {
        const uint8_t* header = capture->file + at;
        const uint32_t captured = word_at(header + 8);
        at += PCAP_FRAME_HEADER;
        if (captured > size - at)
            abort();
        capture->frames[capture->frame_count++] = (struct captured_frame){
            .data = capture->file + at, .captured = captured, .wire = word_at(header + 12)};
        at += captured;
    }
}

void capture_open(struct capture* capture) {
    const char* path = getenv("RAWNETCAP_FRAMES");
    const char* lie = getenv("RAWNETCAP_LIE");
    const char* time = getenv("RAWNETCAP_TIME");
    char* end;
    if (path != NULL)
        read_frames(capture, path);
    capture->total = number("RAWNETCAP_COUNT", capture->frame_count);
    if (capture->frame_count == 0)
        capture->total = 0;
    capture->batch = number("RAWNETCAP_BATCH", 64);
    capture->rate = number("RAWNETCAP_RATE", 0);
    capture->lie_at = UINT64_MAX;
    if (lie != NULL) {
        capture->lie_at = strtoull(lie, &end, 10);
        capture->lie_length = strtol(end + 1, NULL, 10);
    }
    capture->fixed_s = -1;
    if (time != NULL) {
        capture->fixed_s = strtoll(time, &end, 10);
        capture->fixed_ns = strtoll(end + 1, NULL, 10);
    }
}

void capture_close(struct capture* capture) {
    if (capture->ring != NULL)
        (void)syscall(SYS_munmap, capture->ring, capture->ring_size);
    free(capture->frames);
    free(capture->file);
    memset(capture, 0, sizeof *capture);
}

/* ---- The ring ---- */

/* Frames that have come so far and were not handed over yet. */
static uint64_t waiting(struct capture* capture) {
    const uint64_t left = capture->total - capture->sent;
    if (capture->rate == 0)
        return left;
    const int64_t now = clock_ns(CLOCK_MONOTONIC);
    if (capture->started_ns == 0)
        capture->started_ns = now;
    const uint64_t come =
        (uint64_t)((double)(now - capture->started_ns) / 1e9 * (double)capture->rate);
    if (come >= capture->total)
        return left;
    return come > capture->sent ? come - capture->sent : 0;
}

int capture_wait(struct capture* capture, int timeout_ms) {
    const uint64_t left = capture->total - capture->sent;
    const uint64_t wanted = left < capture->batch ? left : capture->batch;
    const uint64_t here = waiting(capture);
    int64_t sleep_ns = timeout_ms * (int64_t)NS_PER_MS;
    if (left > 0 && here >= wanted)
        return 1;
    if (left > 0) {
        const double due_ns = (double)(wanted - here) * 1e9 / (double)capture->rate;
        if (due_ns < (double)sleep_ns)
            sleep_ns = (int64_t)due_ns;
    }
    const struct timespec pause = {.tv_sec = sleep_ns / NS_PER_S, .tv_nsec = sleep_ns % NS_PER_S};
    nanosleep(&pause, NULL);
    return left > 0 && waiting(capture) >= wanted;
}

static uint64_t space_of(uint64_t data_length) {
    return sizeof(struct ring_record) + (data_length + 7) / 8 * 8;
}

/* Bytes that a frame takes in the ring. */
static uint32_t captured_of(const struct capture* capture, const struct captured_frame* frame) {
    return frame->captured < capture->snap_length ? frame->captured : capture->snap_length;
}

static void put_record(struct capture* capture, const struct captured_frame* frame,
                       const struct timespec* now) {
    const uint32_t captured = captured_of(capture, frame);
    struct ring_record record = {.seconds = (uint32_t)now->tv_sec,
                                 .nanoseconds = (uint32_t)now->tv_nsec,
                                 .captured = (uint16_t)captured,
                                 .wire = (uint16_t)frame->wire,
                                 .interface = (uint16_t)(1 + capture->sent % capture->interfaces),
                                 .not_read = NOT_READ};
    if (capture->sent == capture->lie_at)
        record.captured = (uint16_t)capture->lie_length;
    uint8_t* at = capture->ring + capture->write_offset;
    memcpy(at, &record, sizeof record);
    memcpy(at + sizeof record, frame->data, captured);
    capture->sent += 1;
}

/* Where the next record goes: never where the largest one would not fit. */
static uint64_t offset_behind(const struct capture* capture, uint64_t captured) {
    const uint64_t next = capture->write_offset + space_of(captured);
    return next + space_of(capture->largest) < capture->ring_size ? next : 0;
}

static uint64_t fill(struct capture* capture, uint64_t most) {
    const uint64_t first_offset = capture->write_offset;
    uint64_t frame_index = capture->sent % capture->frame_count;
    uint64_t count = 0;
    int has_wrapped = 0;
    struct timespec now = {.tv_sec = capture->fixed_s, .tv_nsec = capture->fixed_ns};
    if (capture->fixed_s < 0)
        clock_gettime(CLOCK_REALTIME, &now);
    for (; count < most; ++count) {
        const struct captured_frame* frame = &capture->frames[frame_index];
        const uint32_t captured = captured_of(capture, frame);
        /* A batch never overwrites its own first records. */
        if (has_wrapped && capture->write_offset + space_of(captured) > first_offset)
            break;
        put_record(capture, frame, &now);
        capture->write_offset = offset_behind(capture, captured);
        if (capture->write_offset == 0) {
            has_wrapped = 1;
            capture->wraps += 1;
        }
        frame_index = frame_index + 1 == capture->frame_count ? 0 : frame_index + 1;
    }
    return count;
}

int capture_fill(struct capture* capture) {
    const int64_t before = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    uint64_t most = waiting(capture);
    if (most > capture->batch)
        most = capture->batch;
    const uint64_t count = most > 0 ? fill(capture, most) : 0;
    capture->own_ns += (uint64_t)(clock_ns(CLOCK_THREAD_CPUTIME_ID) - before);
    return (int)count;
}
