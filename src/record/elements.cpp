// The element tables of IPFIX and NetFlow v9, put in order from the rows, and the two functions
// that read such a table. Constant data; any thread.
#include "record/elements.h"

#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "kestrelexp/template.h"

namespace kestrel {
namespace {

// Which of the tables an element's place is in.
using table_place = std::optional<uint16_t> element_places::*;

constexpr size_t table_size(table_place table) {
    size_t count = 0;
    for (const auto& [element, field] : all_elements)
        count += element.places.*table ? 1 : 0;
    return count;
}

// The row at a place; places after the last have the row without a name that ends a table.
constexpr template_element row_at(table_place table, size_t place) {
    for (const auto& [element, field] : all_elements) {
        if (element.places.*table == place)
            return {element.name, element.number, element.length};
    }
    return {nullptr, 0, 0};
}

// Whether the rows fill the places up to the end of the table, and each is found by its name: a
// name is found by the first row that begins it, so no row may begin a later one.
constexpr bool is_in_order(std::span<const template_element> rows, table_place table) {
    for (size_t place = 0; place < table_size(table); ++place) {
        if (place + 1 >= rows.size() || !rows[place].name)
            return false;
        const std::string_view name = rows[place].name;
        for (size_t earlier = 0; earlier < place; ++earlier) {
            if (name.starts_with(rows[earlier].name))
                return false;
        }
    }
    return true;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

// An array of C linkage has no other way to be filled from a function. What is left of the 64
// places ends the table.
#define ROWS_8(table, first)                                                                \
    row_at(table, (first) + 0), row_at(table, (first) + 1), row_at(table, (first) + 2),     \
        row_at(table, (first) + 3), row_at(table, (first) + 4), row_at(table, (first) + 5), \
        row_at(table, (first) + 6), row_at(table, (first) + 7)
#define ROWS_64(table)                                                                           \
    ROWS_8(table, 0), ROWS_8(table, 8), ROWS_8(table, 16), ROWS_8(table, 24), ROWS_8(table, 32), \
        ROWS_8(table, 40), ROWS_8(table, 48), ROWS_8(table, 56)

constexpr struct template_element static_field_ipfix[] = {ROWS_64(&element_places::in_ipfix)};
constexpr struct template_element static_field_nf9[] = {ROWS_64(&element_places::in_nf9)};

static_assert(is_in_order(static_field_ipfix, &element_places::in_ipfix));
static_assert(is_in_order(static_field_nf9, &element_places::in_nf9));

const struct template_element* exporter_template_find_field(
    const char* name, const struct template_element* elements) {
    for (const template_element* row = elements; row && row->name; ++row) {
        if (std::strncmp(row->name, name, std::strlen(row->name)) == 0)
            return row;
    }
    return nullptr;
}

void exporter_template_print_fields(const struct template_element* elements) {
    std::printf("Name,Length\n");
    for (const template_element* row = elements; row && row->name; ++row)
        std::printf("%s,%i\n", row->name, int{row->length});
}
