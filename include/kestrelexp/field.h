/* Names and forms of fields outside of NetFlow: what a field is called, and how its value is
 * written, in the message of goflow2 and in the Elastic Common Schema. Getters (getter.h) give the
 * values. All is constant data; any thread. */
#ifndef KESTRELEXP_FIELD_H
#define KESTRELEXP_FIELD_H

#include <stddef.h>
#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/record.h"

#ifdef __cplusplus
extern "C" {
#endif

enum field_style {
    FIELD_STYLE_GOFLOW2 = 0, /* the JSON of goflow2; its protobuf message has the same names */
    FIELD_STYLE_ECS = 1      /* Elastic Common Schema: names with dots are members of objects */
};
enum { FIELD_STYLES = 2 };

/* How a value is written. Numbers are decimal, whatever their size. */
enum field_form {
    FIELD_FORM_NONE = 0,          /* not at all: there is no such name */
    FIELD_FORM_NUMBER = 1,        /* 443 */
    FIELD_FORM_DIGITS = 2,        /* "443": a number that is an identifier */
    FIELD_FORM_HIGH_BYTE = 3,     /* a number: the value divided by 256 */
    FIELD_FORM_LOW_BYTE = 4,      /* a number: the rest of that */
    FIELD_FORM_RATE = 5,          /* a number; 0 is 1: one in one */
    FIELD_FORM_ADDRESS = 6,       /* "192.0.2.1", "2001:db8::1" (RFC 5952), by the value's length */
    FIELD_FORM_MAC = 7,           /* "02:00:5e:10:00:ff" */
    FIELD_FORM_MAC_HYPHENS = 8,   /* "02-00-5E-10-00-FF" */
    FIELD_FORM_LABEL = 9,         /* a number, the label alone; of an array, outermost first */
    FIELD_FORM_PROTOCOL = 10,     /* "TCP", by the number of the IP protocol */
    FIELD_FORM_TRANSPORT = 11,    /* "tcp": the same in lower case */
    FIELD_FORM_ETYPE = 12,        /* "IPv4", by the IP version */
    FIELD_FORM_NETWORK_TYPE = 13, /* "ipv4": the same in lower case */
    FIELD_FORM_TIME = 14,         /* "2026-01-31T23:59:59.999999999Z", of ns since 1970 */
    FIELD_FORM_TEXT = 15          /* text up to the first NUL, or the whole value */
};

struct field_style_name {
    const char* name; /* NULL: none */
    int32_t form;     /* enum field_form */
};

/* A value may be written in two ways, as an ICMP type and code that are one field. */
enum { FIELD_STYLE_NAMES = 2 };

struct field_names {
    const char* name; /* the field's own, which its getter has */
    /* Where a number of the width lies in the base part of every record (record.h), as the getter
     * gives it; width 0: the getter alone knows. Whoever reads many fields saves its calls. */
    uint16_t offset;
    uint16_t width; /* 0, 1, 2, 4 or 8 */
    struct field_style_name styles[FIELD_STYLES][FIELD_STYLE_NAMES];
};

/* What the field with exactly this name is called. Knows the base table and the fields that the
 * program's own filters add, those without any such name too; NULL for all others. */
KX_API const struct field_names* field_names_of(const char* name);

#ifdef __cplusplus
}
#endif

KX_ASSERT_LAYOUT(sizeof(struct field_style_name) == 16);
KX_ASSERT_LAYOUT(sizeof(struct field_names) == 80);
KX_ASSERT_LAYOUT(offsetof(struct field_names, offset) == 8);
KX_ASSERT_LAYOUT(offsetof(struct field_names, width) == 10);
KX_ASSERT_LAYOUT(offsetof(struct field_names, styles) == 16);

#endif
