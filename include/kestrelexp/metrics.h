/* Metrics: counters and gauges that the program and its plugins keep, and a look at all of them.
 *
 * Whoever counts registers a table of metrics and gets one cell for each row, in the order of the
 * rows. Counting is one addition to a cell: no lock, no call, no allocation. A cell has one writer
 * at a time (a thread, or threads that take turns under a lock); threads that count the same thing
 * at the same time register the table once each, and readers see the sum. Counters only grow, from
 * 0 at the start to the end of the program; nothing resets them. */
#ifndef KESTRELEXP_METRICS_H
#define KESTRELEXP_METRICS_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

enum metric_type {
    METRIC_COUNTER = 0, /* grows only */
    METRIC_GAUGE = 1    /* takes any value */
};

/* One metric of a table. */
struct metric_row {
    const char* name;   /* letters, digits, '_' and ':', no digit first; ends in the base unit, that
                         * of a counter in "_total" */
    const char* help;   /* one line */
    const char* labels; /* of this row, such as reason="filter"; NULL: none */
    int32_t type;       /* enum metric_type */
};

/* One number. Its memory is zeroed and lives for the whole run. */
struct metric_cell {
    uint64_t value; /* by metric_add and metric_set only */
};

/* Registers count rows and returns their cells, which share no cache line with anything else.
 * labels: of all rows, in front of their own; NULL or empty: none. Label texts are key="value",
 * separated by ','; in values, '\', '"' and line ends are escaped as \\, \" and \n. Rows of the
 * same name and labels are one metric, whose value is the sum of all its cells; the first row of a
 * name has the say about its help. All texts are copied.
 * Meant for start-up, as it allocates and locks; any thread. A name that breaks the rules above, or
 * comes with another type than before, ends the program with status 255. */
KX_API struct metric_cell* metrics_register(const struct metric_row* rows, uint32_t count,
                                            const char* labels);

/* The labels by which the plugin that is just being initialised is told from all others, for
 * metrics_register: export="ipfix-0" (the plugin's name and its position among the exports, from
 * 0), or input="pcap". Empty outside of the init of an input or export. Valid during init only. */
KX_API const char* metrics_label(void);

/* Adds to a counter or gauge. By the cell's writer only. */
static inline void metric_add(struct metric_cell* cell, uint64_t amount) {
    /* One writer at a time: no locked instruction. Readers must not see half a number. */
    const uint64_t before = __atomic_load_n(&cell->value, __ATOMIC_RELAXED);
    __atomic_store_n(&cell->value, before + amount, __ATOMIC_RELAXED);
}

/* Sets a gauge. By the cell's writer only. */
static inline void metric_set(struct metric_cell* cell, uint64_t value) {
    __atomic_store_n(&cell->value, value, __ATOMIC_RELAXED);
}

/* One metric as a snapshot shows it; valid during the visit. */
struct metric_sample {
    const char* name;
    const char* help;
    const char* labels; /* never NULL; the table's, then the row's own */
    int32_t type;       /* enum metric_type */
    uint64_t value;
};

typedef void metrics_visit_function(void* context, const struct metric_sample* sample);

/* Visits all metrics, those of one name one after the other, else in the order of registration. Any
 * thread, at any time; allocates nothing and disturbs no writer. The numbers are read one by one
 * while others count, so that two of them may be a moment apart. visit must not register. */
KX_API void metrics_snapshot(metrics_visit_function* visit, void* context);

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct metric_row) == 32);
KX_ASSERT_LAYOUT(offsetof(struct metric_row, type) == 24);
KX_ASSERT_LAYOUT(sizeof(struct metric_cell) == 8);
KX_ASSERT_LAYOUT(sizeof(struct metric_sample) == 40);
KX_ASSERT_LAYOUT(offsetof(struct metric_sample, value) == 32);

#endif
