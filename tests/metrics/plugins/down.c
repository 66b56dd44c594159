/* An export "down" that takes every record and says of itself that it is not up; and what else a
 * program counts that captures and exports under difficulties, so that readers of metrics meet it.
 * Record loop thread only. */
#include <kestrelexp/metrics.h>
#include <kestrelexp/plugin.h>
#include <stddef.h>

KX_API int32_t plugin_type = PLUGIN_KIND_EXPORT;

static const struct metric_row rows[] = {
    {"kestrelexp_export_up", "Whether the export is up.", NULL, METRIC_GAUGE},
    {"kestrelexp_export_reconnects_total", "Connections that were made anew.", NULL,
     METRIC_COUNTER},
    {"kestrelexp_kafka_broker_up", "Whether it is up.", "broker=\"7\"", METRIC_GAUGE},
    {"kestrelexp_kafka_broker_up", "Whether it is up.", "broker=\"8\"", METRIC_GAUGE},
    {"kestrelexp_kafka_broker_round_trip_microseconds", "To it and back.", "broker=\"7\"",
     METRIC_GAUGE},
};

const struct plugin_description* plugin_export_desc(void) {
    static const struct plugin_description description = {"down", "Is never up.", 0, 0};
    return &description;
}

void* plugin_export_init(char* params, struct getter* getters) {
    struct metric_cell* cells = metrics_register(rows, sizeof rows / sizeof *rows, metrics_label());
    (void)params;
    (void)getters;
    metric_set(&cells[0], 0);
    metric_add(&cells[1], 3);
    metric_set(&cells[2], 1);
    metric_set(&cells[4], 12345);
    return cells;
}

uint32_t plugin_export_export(void* instance, struct flow_record* record) {
    (void)instance;
    (void)record;
    return 0;
}

uint32_t plugin_export_flush(void* instance) {
    (void)instance;
    return 0;
}
