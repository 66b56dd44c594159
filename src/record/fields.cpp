// The base vocabulary, made from its rows: an accessor for each field, the validity tests, and the
// table that names them. Accessors only read the record and the start-up time; any thread may call
// them. Runs once per field of each exported flow: no allocation, no system call.
#include <cstddef>
#include <cstring>

#include "base/wire.h"
#include "kestrelexp/getter.h"
#include "kestrelexp/service.h"
#include "record/copy_value.h"
#include "record/field_rows.h"

namespace kestrel {
namespace {

// ---- Accessors ----

enum class field_id : size_t {
#define FIELD(accessor, ...) accessor,
#include "record/field_rows.inc"
#undef FIELD
};

// Where an accessor puts its value.
struct target {
    void* destination;
    uint32_t length;
    uint32_t network_order;
};

__attribute__((always_inline)) inline void put(const target& to, const void* value, size_t length) {
    copy_value(static_cast<uint8_t*>(to.destination), static_cast<const uint8_t*>(value),
               static_cast<int32_t>(length), static_cast<int32_t>(to.length),
               to.network_order != 0);
}

template <typename T>
__attribute__((always_inline)) inline void put_number(const target& to, T value) {
    put(to, &value, sizeof value);
}

// The value at its place in the base of the record.
template <typename T>
T base_number(const flow_record* record, size_t offset) {
    return load_native<T>(reinterpret_cast<const uint8_t*>(record) + offset);
}

// The row is known at compile time, so nothing is left of it but its constants.
template <field_id id>
__attribute__((always_inline)) inline void get_field(const flow_record* record, const target& to) {
    constexpr const field_value& value = field_rows[static_cast<size_t>(id)].value;
    if constexpr (value.form == value_form::zeros) {
        std::memset(to.destination, 0, to.length);
    } else if constexpr (value.form == value_form::stored) {
        if (has_block(value.block))
            put(to,
                reinterpret_cast<const uint8_t*>(record) + block_offset(value.block) + value.offset,
                value.length);
    } else if constexpr (value.form == value_form::is_not_zero) {
        static_assert(value.block == record_block::base && value.width == sizeof(uint16_t));
        put_number(to, uint8_t{base_number<uint16_t>(record, value.offset) != 0});
    } else if constexpr (value.form == value_form::startup_time) {
        put_number(to, timer_get_startup_time() / value.unit_ns);
    } else {
        static_assert(value.block == record_block::base && value.width == sizeof(uint64_t));
        uint64_t time_ns = base_number<uint64_t>(record, value.offset);
        if constexpr (value.form == value_form::since_startup)
            time_ns -= timer_get_startup_time();
        put_number(to, time_ns / value.unit_ns);
    }
}

// ---- Validity tests ----

enum class validity_id : size_t {
#define VALIDITY(name, ...) name,
#include "record/validity_rows.inc"
#undef VALIDITY
};

// The number of filled places in a block, 0 when the block is off.
unsigned block_count(const flow_record* record, record_block block, size_t count_offset) {
    if (!has_block(block))
        return 0;
    return load_native<uint16_t>(reinterpret_cast<const uint8_t*>(record) + block_offset(block) +
                                 count_offset);
}

template <looks_at number>
unsigned number_of(const flow_record* record) {
    switch (number) {
        case looks_at::nothing:
            return 0;
        case looks_at::mac_block:
            return has_block(record_block::mac) ? 1 : 0;
        case looks_at::l3_protocol:
            return record->l3protocol;
        case looks_at::l4_protocol:
            return record->l4protocol;
        case looks_at::vlan_count:
            return block_count(record, record_block::vlan, offsetof(vlan_block, count));
        case looks_at::mpls_count:
            return block_count(record, record_block::mpls, offsetof(mpls_block, count));
    }
}

template <validity_id id>
int is_valid(const flow_record* record) {
    constexpr const validity_row& row = validity_rows[static_cast<size_t>(id)];
    return row.holds(number_of<row.number>(record)) ? 1 : 0;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

#define FIELD(accessor, ...)                                                                    \
    void record_get_##accessor(void*, const struct flow_record* record, void* destination,      \
                               uint32_t length, uint32_t network_order, const struct getter*) { \
        get_field<field_id::accessor>(record, {destination, length, network_order});            \
    }
#include "record/field_rows.inc"
#undef FIELD

#define VALIDITY(name, ...)                                           \
    int record_##name##_ok(void*, const struct flow_record* record) { \
        return is_valid<validity_id::name>(record);                   \
    }
#include "record/validity_rows.inc"
#undef VALIDITY

// ---- Lengths ----

#define LENGTH(n)                      \
    uint32_t record_length_##n(void) { \
        return n;                      \
    }

LENGTH(1)
LENGTH(2)
LENGTH(3)
LENGTH(4)
LENGTH(6)
LENGTH(8)
LENGTH(16)

// ---- The base table ----

namespace kestrel {
namespace {

// Plugins ask __length_helper; labels are ours alone.
getter_length_function* length_function(uint32_t length) {
    return length == 3 ? record_length_3 : __length_helper(length);
}

}  // namespace
}  // namespace kestrel

struct getter* getter_base_init(void) {
    getter* table = nullptr;
    for (const field_row& row : field_rows) {
        if (has_block(row.exists_with))
            getter_add(&table, row.name, row.value.length, nullptr, row.valid,
                       length_function(row.value.length), row.get);
    }
    return table;
}
