// The one routine of every accessor, for plugins: a value out of a record into a field of a
// given width and byte order. Touches only its arguments, any thread.
#include "kestrelexp/getter.h"
#include "record/copy_value.h"

void record_universal_get(void* destination, const void* source, int32_t source_offset,
                          int32_t source_length, int32_t destination_length,
                          uint32_t network_order) {
    kestrel::copy_value(static_cast<uint8_t*>(destination),
                        static_cast<const uint8_t*>(source) + source_offset, source_length,
                        destination_length, network_order != 0);
}
