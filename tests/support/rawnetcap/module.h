/* An emulated capture module of /dev/rawnetcap: the other side of the protocol, written from
 * its description alone. calls.c lets a program meet it. One opener at a time; no locks, since the
 * program under test uses the device from one thread at a time.
 *
 * It is told what to be by the environment, read when the device is opened:
 *   RAWNETCAP_FRAMES   pcap file whose frames it captures, over and over; without it none
 *   RAWNETCAP_COUNT    how many frames in all (default: those of the file once)
 *   RAWNETCAP_DEVICES  devices that there are, parted by ',' (default eth0,eth1). Frames come from
 *                      those added in turn; the n-th device added is input interface n.
 *   RAWNETCAP_RING     KiB (default 64)
 *   RAWNETCAP_LARGEST  bytes of frame data in the largest record (default: the snap length)
 *   RAWNETCAP_BATCH    most records announced at once (default 64)
 *   RAWNETCAP_RATE     frames per second (default: as fast as they are taken)
 *   RAWNETCAP_GATE     no frame comes before this file is there
 *   RAWNETCAP_IDLE     every so manieth poll times out, and finds no records
 *   RAWNETCAP_TIME     "seconds:nanoseconds" of every record, as they stand (default: the clock)
 *   RAWNETCAP_LIE      "number:length": this record (from 0) claims this captured length
 *   RAWNETCAP_ANSWERS  "call=result,...": what a call returns instead of doing its work. Calls are
 *                      ff15 and the like, open, mmap (0: a null mapping), poll (a positive result
 *                      is that of revents).
 *   RAWNETCAP_LOG      file that gets a line for each call, and one at the last frame
 */
#ifndef RAWNETCAP_MODULE_H
#define RAWNETCAP_MODULE_H

#include <poll.h>
#include <stddef.h>
#include <sys/types.h>

/* All as the system calls of the name; the descriptor is that of the ring's memory. */
int module_open(int flags);
int module_ioctl(unsigned long request, const void* argument);
int module_poll(struct pollfd* entry, int timeout_ms);
void* module_mmap(size_t size, int protection, int flags, off_t offset);
int module_munmap(void* address, size_t size);
int module_close(void);

/* The open descriptor, or -1; and whether an address is where the ring is mapped. */
int module_descriptor(void);
int module_maps(const void* address);

/* Adds a line to the log. */
void module_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
