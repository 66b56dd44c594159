/* Templates: tables of elements, definitions, sets, and the two exporters built from them. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "everything.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/template.h"

static void check_elements(void) {
    static const struct template_element one[] = {{"ONE", 1, 2}, {NULL, 0, 0}};
    CHECK(exporter_template_find_field("SRC_AS32", static_field_ipfix)->length == 4);
    CHECK(exporter_template_find_field("SRC_MAC", static_field_nf9)->id == 56);
    exporter_template_print_fields(one);
}

static void check_sets(struct getter* getters) {
    static struct flow_record record;
    char opening[] = "BEGIN-TEMPLATE";
    char item[] = "L4_SRC_PORT=L4_PORT_SRC";
    char* lines[] = {opening, item, NULL};
    uint8_t buffer[64];
    struct template_cursor cursor = {buffer, 0, 0};
    static const uint8_t expected[] = {0, 2, 0, 12, 1, 0, 0, 1, 0, 7, 0, 2, /* template set */
                                       1, 0, 0, 8,  7, 8, 0, 0};
    int32_t index = 0;

    char** definitions = exporter_template_convert_config(lines);
    CHECK(strcmp(definitions[0], item) == 0 && definitions[1] == NULL);
    struct template_collection* made =
        exporter_template_init(definitions, static_field_ipfix, getters);
    free(definitions);
    CHECK(made->count == 1);
    CHECK(exporter_template_cmp_rev(made->templates, made->templates) == 0);

    CHECK(exporter_template_find(made, &record, &index) == 0 && index == -1);
    record.l4protocol = 6;
    record.srcport = 0x0708;
    CHECK(exporter_template_find(made, &record, &index) == 2 && index == 0);
    CHECK(exporter_template_add_record(made, &record, -1) == 0);
    CHECK(exporter_template_current_data_size(made) == 8);
    made->set_id = 2;
    CHECK(exporter_template_fill_packet_templates(made, &cursor) == 1);
    exporter_template_fill_packet_data(made, &cursor);
    CHECK(cursor.offset == sizeof expected && cursor.count == 2);
    CHECK(memcmp(buffer, expected, sizeof expected) == 0);
}

static void check_exporter(plugin_desc_function* desc, export_init_function* init,
                           export_export_function* export_record, export_flush_function* flush,
                           export_tend_function* tend, const char* name, const char* file_key,
                           struct getter* getters) {
    static struct flow_record record;
    char path[64];
    char params[256];
    snprintf(path, sizeof path, "/tmp/kestrel-abi.%i", (int)getpid());
    FILE* file = fopen(path, "w");
    CHECK(file != NULL);
    fputs("BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC\n", file);
    fclose(file);
    snprintf(params, sizeof params, "host=127.0.0.1,port=9,%s=%s", file_key, path);
    CHECK(strcmp(desc()->name, name) == 0);
    void* exporter = init(params, getters);
    remove(path);
    CHECK(exporter != NULL);
    CHECK(export_record(exporter, &record) == 0xFFFFFFFF); /* not IPv4 */
    CHECK(flush(exporter) == 0);
    CHECK(tend(exporter) == EXPORT_TEND_NEVER); /* no options records were asked for */
}

void check_templates(struct getter* getters) {
    check_elements();
    check_sets(getters);
    check_exporter(exporter_ipfix_desc, exporter_ipfix_init, exporter_ipfix_export,
                   exporter_ipfix_flush, exporter_ipfix_tend, "ipfix", "template_file", getters);
    check_exporter(exporter_nf9_desc, exporter_nf9_init, exporter_nf9_export, exporter_nf9_flush,
                   exporter_nf9_tend, "netflow-v9", "template-file", getters);
}
