// What fields are called outside of NetFlow: the names of the rows, and those of the fields that
// our filters add. Constant data; any thread.
#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "kestrelexp/field.h"
#include "record/field_rows.h"

namespace kestrel {
namespace {

struct plugin_field {
    const char* name;
    style_names names;
};

// Those of the AS helper. What a template names as 16 bits wide is the same number.
constexpr plugin_field plugin_fields[] = {
    {"SRC_AS", no_names},
    {"DST_AS", no_names},
    {"SRC_AS32", names(goflow2(as_number("src_as")), ecs(as_number("source.as.number")))},
    {"DST_AS32", names(goflow2(as_number("dst_as")), ecs(as_number("destination.as.number")))},
};

// Whether the value is the number at its place.
constexpr bool is_plain(const field_value& value) {
    const bool is_stored =
        value.form == value_form::stored && is_number_length(value.length) && value.length <= 8;
    const bool is_time = value.form == value_form::since_1970 && value.unit_ns == 1;
    return value.block == record_block::base && (is_stored || is_time);
}

constexpr field_names entry(const char* name, const field_value& value, const style_names& names) {
    return {name,
            is_plain(value) ? value.offset : uint16_t{0},
            is_plain(value) ? value.width : uint16_t{0},
            {{names.goflow2[0], names.goflow2[1]}, {names.ecs[0], names.ecs[1]}}};
}

constexpr auto all_names = [] {
    std::array<field_names, std::size(field_rows) + std::size(plugin_fields)> all = {};
    size_t count = 0;
    for (const field_row& row : field_rows)
        all[count++] = entry(row.name, row.value, row.names);
    for (const plugin_field& row : plugin_fields)
        all[count++] = entry(row.name, zeros(0), row.names);
    return all;
}();

}  // namespace
}  // namespace kestrel

using namespace kestrel;

const struct field_names* field_names_of(const char* name) {
    const auto found = std::find_if(all_names.begin(), all_names.end(), [&](const auto& entry) {
        return std::string_view(entry.name) == name;
    });
    return found == all_names.end() ? nullptr : &*found;
}
