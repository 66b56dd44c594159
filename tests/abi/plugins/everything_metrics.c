/* Metrics: a table with labels, what is counted, and the look at it. The counted part of the plugin
 * "meter" is tested over a whole run. */
#include <string.h>

#include "everything.h"
#include "kestrelexp/metrics.h"

enum { PEARS, ROOM, ROW_COUNT };

static const struct metric_row rows[ROW_COUNT] = {
    {"everything_pears_total", "Pears.", "ripe=\"yes\"", METRIC_COUNTER},
    {"everything_room_bytes", "Room.", NULL, METRIC_GAUGE},
};

struct found {
    uint64_t pears;
    uint64_t room;
    int others;
};

static void visit(void* context, const struct metric_sample* sample) {
    struct found* const found = context;
    if (strcmp(sample->name, "everything_pears_total") == 0) {
        CHECK(sample->type == METRIC_COUNTER);
        CHECK(strcmp(sample->help, "Pears.") == 0);
        CHECK(strcmp(sample->labels, "export=\"everything-0\",ripe=\"yes\"") == 0);
        found->pears = sample->value;
    } else if (strcmp(sample->name, "everything_room_bytes") == 0) {
        CHECK(sample->type == METRIC_GAUGE);
        CHECK(strcmp(sample->labels, "export=\"everything-0\"") == 0);
        found->room = sample->value;
    } else {
        ++found->others;
    }
}

void check_metrics(void) {
    struct found found = {0, 0, 0};
    CHECK(strcmp(metrics_label(), "export=\"everything-0\"") == 0);
    struct metric_cell* const first = metrics_register(rows, ROW_COUNT, metrics_label());
    struct metric_cell* const second = metrics_register(rows, ROW_COUNT, metrics_label());
    metric_add(&first[PEARS], 40);
    metric_add(&second[PEARS], 1);
    metric_add(&second[PEARS], 1);
    metric_set(&first[ROOM], 1000);
    metric_set(&first[ROOM], 77);
    metrics_snapshot(visit, &found);
    CHECK(found.pears == 42);
    CHECK(found.room == 77);
    CHECK(found.others > 10); /* the program's own */
}
