// The "null" exporter: takes every flow and sends nothing. Record loop thread only.
#include "kestrelexp/builtin.h"

namespace {

constexpr plugin_description description = {
    "null", "Null exporter. Passes flows to blackhole.\nNeed no parameters", 0, 0};

}  // namespace

const struct plugin_description* exporter_null_desc(void) {
    return &description;
}

void* exporter_null_init(char*, struct getter*) {
    return reinterpret_cast<void*>(1);  // there is no instance, but null would mean failure
}

uint32_t exporter_null_export(void*, struct flow_record*) {
    return 0;
}

uint32_t exporter_null_flush(void*) {
    return 0;
}
