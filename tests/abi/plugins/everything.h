/* What the parts of the "everything" plugin share. */
#ifndef EVERYTHING_H
#define EVERYTHING_H

#include <stdint.h>

/* Reports the condition when it does not hold. */
#define CHECK(condition) check((condition) != 0, __FILE__, __LINE__, #condition)

void check(int holds, const char* file, int line, const char* condition);

void check_services(void);
void check_getters(void);
void check_accessors(void);
void check_packets(void);
void check_flow_engine(void);
void check_filters(void);
void check_plugins(void);
void check_rules(void);
void check_addresses(void);
void check_metrics(void);
void check_outlets(void);
void check_field_names(void);

struct getter;
void check_templates(struct getter* getters);

#endif
