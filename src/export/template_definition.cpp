// From the lines of a template file to a template collection: grouping, parsing, resolving names,
// sorting. Main thread, while the program starts. A fault in a definition is the operator's: it is
// reported and ends the program.
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/heap.h"
#include "base/log.h"
#include "base/memory.h"
#include "export/template_plan.h"
#include "kestrelexp/template.h"

namespace kestrel {
namespace {

constexpr std::string_view opening = "BEGIN-TEMPLATE";
constexpr uint32_t set_limit = std::numeric_limits<uint16_t>::max();  // as is a record's length

struct item {
    std::string element;
    std::string value;  // without its '*'
    bool optional;
};

item parse_item(const char* text) {
    const std::string_view whole = text;
    const size_t equals = whole.find('=');
    if (equals == 0 || equals == std::string_view::npos || equals + 1 == whole.size())
        die(exit_config, "Field: %s has invalid format", text);
    std::string_view value = whole.substr(equals + 1);
    const bool optional = value.front() == '*';
    value.remove_prefix(optional);
    return {std::string(whole.substr(0, equals)), std::string(value), optional};
}

const template_element* resolve_element(const item& line, const template_element* elements) {
    const template_element* row = exporter_template_find_field(line.element.c_str(), elements);
    if (!row) {
        verbose_msg(-1, "Bad field: %s", line.element.c_str());
        verbose_msg(-1, "Allowed fields are:");
        exporter_template_print_fields(elements);
        std::exit(exit_config);
    }
    return row;
}

const getter* resolve_value(const item& line, getter* table) {
    const char* name = line.value.c_str();
    const getter* found = getter_by_name(table, name);
    if (!found && line.optional) {
        verbose_msg(-1, "Fallback to ZERO getter for value: %s", name);
        found = getter_by_name(table, "ZERO");
    }
    if (!found)
        die(exit_config, "Unable to found record value: %s", name);
    if (static_cast<int32_t>(found->length) < 1)
        die(exit_config, "Unable to use variable length field: %s,field_val[1]", name);
    return found;
}

// A value of an odd width is copied whole into a shorter element (getter.h), so the last field of a
// full buffer may run over its end by as much as the longest value. Plugins' accessors may copy
// more than the natural length of their field says: the margin is for those.
constexpr size_t value_margin = 64;

template_data* make_data(const getter* getters) {
    size_t longest = 0;
    for (const getter* entry = getters; entry && entry->name; ++entry)
        longest = std::max(longest, size_t{entry->length});
    return static_cast<template_data*>(
        malloc_wrapper(sizeof(template_data) + longest + value_margin, 1));
}

// Both lengths are 16 bits wide on the wire.
void check_lengths(uint32_t set_length, uint32_t record_length) {
    if (set_length > set_limit || record_length > set_limit)
        die(exit_config, "Templates too large: %u bytes, record %u bytes", set_length,
            record_length);
}

// Appends to *set_length the bytes that the template takes in a template set.
export_template make_template(const char* definition, const template_element* elements,
                              getter* table, uint32_t* set_length) {
    if (!elements)
        die(exit_config, "blank field definition");
    // A copy of its own: char_split's is the caller's to free by its first piece.
    std::string text = definition;
    const heap_array pieces(char_split(text.data(), ',', 0));
    std::vector<const template_element*> rows;
    export_template result = {};
    uint32_t record_length = 0;
    *set_length += 4;
    for (char** piece = pieces.get(); *piece; ++piece) {
        const item parsed = parse_item(*piece);
        rows.push_back(resolve_element(parsed, elements));
        getter_copy_to(&result.getters, resolve_value(parsed, table));
        record_length += rows.back()->length;
        *set_length += 4;
        check_lengths(*set_length, record_length);
    }
    check_lengths(*set_length, record_length);  // of a template without fields
    const size_t size = std::span(rows).size_bytes();
    result.elements = static_cast<const template_element**>(malloc_wrapper(size, 0));
    std::copy(rows.begin(), rows.end(), result.elements);
    result.field_count = static_cast<uint16_t>(rows.size());
    result.record_length = static_cast<uint16_t>(record_length);
    result.required = getter_bitmap_from_list(result.getters);
    result.data = make_data(result.getters);
    return result;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

char** exporter_template_convert_config(char** lines) {
    std::vector<std::optional<std::string>> definitions;
    for (; lines && *lines; ++lines) {
        if (std::string_view(*lines).starts_with(opening)) {
            definitions.emplace_back();
            continue;
        }
        if (definitions.empty())
            die(exit_config, "Template definition not begins with BEGIN-TEMPLATE");
        std::optional<std::string>& open = definitions.back();
        if (open)
            open->append(",").append(*lines);
        else
            open = *lines;
    }
    // One block: the pointers, then the texts. A caller could not free texts after a null.
    size_t size = (definitions.size() + 1) * sizeof(char*);
    for (const auto& definition : definitions)
        size += definition ? definition->size() + 1 : 0;
    char** result = static_cast<char**>(malloc_wrapper(size, 0));
    char* to = reinterpret_cast<char*>(result + definitions.size() + 1);
    for (size_t i = 0; i < definitions.size(); ++i) {
        if (!definitions[i])
            continue;
        result[i] = static_cast<char*>(
            std::memcpy(to, definitions[i]->c_str(), definitions[i]->size() + 1));
        to += definitions[i]->size() + 1;
    }
    return result;
}

int exporter_template_cmp_rev(const void* left, const void* right) {
    const auto bits = [](const void* side) {
        return std::popcount(static_cast<const export_template*>(side)->required);
    };
    return bits(right) - bits(left);
}

struct template_collection* exporter_template_init(char** definitions,
                                                   const struct template_element* elements,
                                                   struct getter* getters) {
    std::vector<export_template> templates;
    auto* collection = make_lifelong<template_collection>();
    collection->getters = getters;
    uint32_t set_length = 4;
    for (; definitions && *definitions; ++definitions) {
        templates.push_back(make_template(*definitions, elements, getters, &set_length));
        collection->largest_record =
            std::max(collection->largest_record, uint32_t{templates.back().record_length});
    }
    if (templates.empty()) {
        std::free(collection);
        return nullptr;
    }
    // Templates that require equally many getters stay in the order of their definitions.
    std::stable_sort(templates.begin(), templates.end(),
                     [](const export_template& left, const export_template& right) {
                         return exporter_template_cmp_rev(&left, &right) < 0;
                     });
    collection->count = static_cast<int32_t>(templates.size());
    collection->templates = static_cast<export_template*>(
        malloc_wrapper(templates.size() * sizeof(export_template), 1));
    std::copy(templates.begin(), templates.end(), collection->templates);
    collection->plan = new template_plan(*collection);
    verbose_msg(0, "Templates OK");
    return collection;
}
