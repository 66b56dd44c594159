/* An export that keeps its own account of what it sends: it takes every second record, and says at
 * each flush what a snapshot shows of its metrics. With FORGETFUL it does not count the others. */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "kestrelexp/metrics.h"
#include "kestrelexp/plugin.h"
#include "kestrelexp/service.h"

int32_t plugin_type = PLUGIN_KIND_EXPORT;

enum { RECORDS, PACKETS, ODD_RECORDS, ODD_PACKETS, LARGEST, ROW_COUNT };

static const struct metric_row rows[ROW_COUNT] = {
    {"kestrelexp_export_records_total", "Records sent.", NULL, METRIC_COUNTER},
    {"kestrelexp_export_packets_total", "Packets sent.", NULL, METRIC_COUNTER},
    {"kestrelexp_export_lost_records_total", "Records lost.", "reason=\"odd\"", METRIC_COUNTER},
    {"kestrelexp_export_lost_packets_total", "Packets lost.", "reason=\"odd\"", METRIC_COUNTER},
    {"meter_largest_flow_packets", "Packets of the largest flow.", NULL, METRIC_GAUGE},
};

struct meter {
    struct metric_cell* cells;
    char label[64];
    uint64_t record_count;
    uint64_t largest;
};

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"meter", "Counts what it takes", 0, 0};
    return &description;
}

void* plugin_export_init(char* params, struct getter* getters) {
    (void)params;
    (void)getters;
    struct meter* const meter = malloc_wrapper(sizeof *meter, 0);
    snprintf(meter->label, sizeof meter->label, "%s", metrics_label());
    meter->cells = metrics_register(rows, ROW_COUNT, meter->label);
    return meter;
}

uint32_t plugin_export_export(void* instance, struct flow_record* record) {
    struct meter* const meter = instance;
    const int is_odd = meter->record_count++ % 2 == 1;
#ifdef FORGETFUL
    if (is_odd)
        return 0;
#endif
    metric_add(&meter->cells[is_odd ? ODD_RECORDS : RECORDS], 1);
    metric_add(&meter->cells[is_odd ? ODD_PACKETS : PACKETS], record->packets);
    if (record->packets > meter->largest)
        meter->largest = record->packets;
    metric_set(&meter->cells[LARGEST], meter->largest);
    return is_odd ? UINT32_C(0xFFFFFFFF) : 0;
}

static void say(void* context, const struct metric_sample* sample) {
    const struct meter* const meter = context;
    if (strncmp(sample->labels, meter->label, strlen(meter->label)) == 0)
        verbose_msg(-1, "%s %s{%s} %" PRIu64, sample->type == METRIC_GAUGE ? "gauge" : "counter",
                    sample->name, sample->labels, sample->value);
}

uint32_t plugin_export_flush(void* instance) {
    metrics_snapshot(say, instance);
    return 0;
}
