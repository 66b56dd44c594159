/* Names of fields outside of NetFlow. */
#include <string.h>

#include "everything.h"
#include "kestrelexp/field.h"

static int is_named(const struct field_style_name* found, const char* name, int32_t form) {
    return found->name != NULL && strcmp(found->name, name) == 0 && found->form == form;
}

void check_field_names(void) {
    const struct field_names* const protocol = field_names_of("L4_PROTO");
    const struct field_names* const seconds = field_names_of("FLOW_START_SEC");
    CHECK(protocol != NULL && strcmp(protocol->name, "L4_PROTO") == 0);
    CHECK(is_named(&protocol->styles[FIELD_STYLE_GOFLOW2][0], "proto", FIELD_FORM_PROTOCOL));
    CHECK(protocol->styles[FIELD_STYLE_GOFLOW2][1].name == NULL);
    CHECK(protocol->offset == offsetof(struct flow_record, l4protocol) && protocol->width == 1);
    CHECK(
        is_named(&protocol->styles[FIELD_STYLE_ECS][0], "network.transport", FIELD_FORM_TRANSPORT));
    CHECK(
        is_named(&protocol->styles[FIELD_STYLE_ECS][1], "network.iana_number", FIELD_FORM_DIGITS));
    CHECK(seconds != NULL && seconds->styles[FIELD_STYLE_GOFLOW2][0].name == NULL);
    CHECK(seconds->styles[FIELD_STYLE_ECS][0].form == FIELD_FORM_NONE);
    CHECK(field_names_of("L4_PROT") == NULL); /* no beginnings */
}
