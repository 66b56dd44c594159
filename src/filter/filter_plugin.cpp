// The "filter" plugin: its description, and the way from a parameter to a compiled filter. Main
// thread, while the program starts. filter_match.cpp has what runs per flow.
#include "filter/filter_rules.h"
#include "kestrelexp/builtin.h"

namespace {

constexpr plugin_description description = {
    "filter",
    "Allows filter outgoing flows by addr, port, etc.\n"
    "Mandatory parameter is filename with filter configuration.\n"
    "For details about filter rules see the documentation.",
    0, 0};

}  // namespace

const struct plugin_description* filter_desc(void) {
    return &description;
}

void* filter_init(char* params, struct getter**) {
    return kestrel::filter_load(params).release();
}
