/* Services for plugins: messages, clocks, memory, parameter strings, configuration files, text. */
#ifndef KESTRELEXP_SERVICE_H
#define KESTRELEXP_SERVICE_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Messages. Level -1 is an error, 0 information, 1 to 5 more and more detail. ---- */

extern KX_API int32_t verbose_level; /* gate of verbose_msg (-v); -1 at start */
extern KX_API int32_t debug_level;   /* gate of debug_msg; -1 at start */
extern KX_API int32_t syslog_on;     /* non-zero: messages go to syslog instead of standard error */
extern KX_API int32_t started;       /* non-zero: syslog is open and is not opened again */
extern KX_API const char* app_name;  /* syslog identity; NULL reads as "app-not-set" */
extern KX_API const char* progname;  /* name in usage and version lines */

/* Writes one message when level <= verbose_level: to standard error as "VERBOSE:%2i:" + message
 * (no prefix for negative levels), or to syslog at LOG_INFO, cut to 2047 characters. Never fails
 * visibly; any thread may call it. */
KX_API void verbose_msg(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* The same for debugging, gated by debug_level; where and what name the place. */
KX_API void debug_msg(int level, const char* where, const char* what, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* ---- Clocks ---- */

/* Monotonic clock, ns. */
KX_API uint64_t timer_get_uptime(void);
/* Wall clock, s since the epoch. */
KX_API uint64_t timer_get_sec(void);
/* Wall clock, ns since the epoch, in steps of a microsecond. */
KX_API uint64_t timer_get_nsec(void);
/* A cheap varying number: the wall clock's microseconds, 0 to 999,999. */
KX_API uint64_t timer_get_rnd(void);
/* 1 when these clocks are those of a replay's packets, else 0. They stand still between two records
 * then, and nothing is lost when an export makes the record loop wait. */
KX_API int32_t timer_is_replay(void);
/* Sets the start-up time to the wall-clock ns at which the monotonic clock was zero; returns the
 * uptime that it read. */
KX_API uint64_t timer_startup_time_update(void);
/* The start-up time, computed first when it is still 0. */
KX_API uint64_t timer_get_startup_time(void);
/* The same value, for callers that keep its low 32 bits. */
KX_API uint64_t timer_get_startup_time32(void);

/* ---- Memory ---- */

/* Zero-filled memory, 128-byte aligned when aligned is non-zero. Never returns NULL: exhausted
 * memory ends the program with status 102. The caller owns it (free). */
KX_API void* malloc_wrapper(size_t size, int aligned);

/* Zero-filled shared memory of size bytes, rounded up to 2 MiB, mapped from an unlinked file
 * directory/PID.name, which is meant to lie on hugetlbfs. Lives until the process ends; a failure
 * ends the program with status 214. */
KX_API void* malloc_huge(size_t size, const char* directory, const char* name);

/* ---- Bits and text ---- */

/* Number of set bits. */
KX_API uint32_t ones32(uint32_t x);
/* Number of set bits in n bytes. */
KX_API int32_t count_ones(const uint8_t* bytes, int n);
/* 2n upper-case hexadecimal digits, NUL-terminated; the caller frees it. NULL without memory. */
KX_API char* str2hexa(const uint8_t* bytes, unsigned n);
/* The number when every character is a decimal digit (0 for an empty text), else -1. */
KX_API int32_t test_positive_number(const char* text);
/* Returns 0: stands in for optional plugin operations. */
KX_API int32_t return_zero_func(void);

/* ---- Parameter strings and configuration files ---- */

/* Splits text at each separator and drops empty pieces. Returns a heap array closed by NULL. With
 * copy the pieces lie in one heap copy that starts at element 0; without, text itself is cut. A
 * NULL text gives an empty array. */
KX_API char** char_split(char* text, int separator, int copy);

/* Type of a setting's target. */
enum config_type { CONFIG_INTEGER = 0 /* int32_t */, CONFIG_STRING = 1 /* char * */ };

/* One row of a settings table; a row with a NULL key closes the table. */
struct config_setting {
    const char* key;
    void* target;
    int32_t type;
};

/* Applies "key=value,key=value" to a settings table: the first row whose key is a prefix of the
 * item's key takes the value, items that match no row are ignored. String targets receive a
 * pointer that stays valid for the life of the program. Returns 0, or -1 after reporting a
 * malformed item (the items before it are applied). NULL params change nothing. */
KX_API int config_set_values(char* params, const struct config_setting* table);

/* The lines of a file, without line ends, lines with a '#' anywhere and lines of fewer than 3
 * characters dropped. A line of more than 16,383 characters arrives in pieces, each like a line.
 * Returns a heap array of heap strings closed by NULL, all the caller's; NULL when the file cannot
 * be opened (nothing is said then), or not be read to its end (said at level -1): a directory, a
 * line of more than 1 MiB, more than 128 MiB in all. */
KX_API char** read_config(const char* path);

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct config_setting) == 24);
KX_ASSERT_LAYOUT(offsetof(struct config_setting, key) == 0);
KX_ASSERT_LAYOUT(offsetof(struct config_setting, target) == 8);
KX_ASSERT_LAYOUT(offsetof(struct config_setting, type) == 16);

#endif
