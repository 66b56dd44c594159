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
#include "export/numbered_element.h"
#include "export/template_plan.h"
#include "kestrelexp/template.h"

namespace kestrel {
namespace {

constexpr std::string_view opening = "BEGIN-TEMPLATE";
constexpr uint32_t set_limit = std::numeric_limits<uint16_t>::max();  // as is a record's length

struct item {
    const char* text;  // whole
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
    return {text, std::string(whole.substr(0, equals)), std::string(value), optional};
}

// Where a field goes.
struct field_target {
    const template_element* element;
    uint32_t enterprise;
    bool is_by_number;
};

// A row of the table that has the name comes first: tables of plugins may have any.
field_target resolve_element(const item& field, const template_element* elements) {
    if (const auto* row = exporter_template_find_field(field.element.c_str(), elements))
        return {row, 0, false};
    const bool is_ipfix = elements == static_field_ipfix;
    const auto [element, enterprise] = read_numbered_element(field.element, field.text, is_ipfix);
    if (!element) {
        verbose_msg(-1, "Bad field: %s", field.element.c_str());
        verbose_msg(-1, "Allowed fields are:");
        exporter_template_print_fields(elements);
        std::exit(exit_config);
    }
    return {element, enterprise, true};
}

getter* resolve_value(const item& field, getter* table) {
    const char* name = field.value.c_str();
    getter* found = getter_by_name(table, name);
    if (!found && field.optional) {
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
// full buffer may run over its end by as much as the longest value, and a plugin's by the margin.
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

// A template that has no place among the others yet.
struct new_template {
    export_template result = {};
    std::vector<const template_element*> elements;
    std::vector<uint32_t> enterprises;  // of each element; 0: none
    uint32_t record_length = 0;
};

// Returns the bytes that the field takes in a template set.
uint32_t add_field(new_template& to, const field_target& target, getter* value) {
    const uint32_t length = target.element->length;
    to.elements.push_back(target.element);
    to.enterprises.push_back(target.enterprise);
    to.record_length += length;
    const getter entry = target.is_by_number ? value_of_any_width(*value, length) : *value;
    getter_copy_to(&to.result.getters, &entry);
    return field_specifier_size(target.enterprise);
}

// Appends to *set_length the bytes that the template takes in a template set.
new_template make_template(const char* definition, const template_element* elements, getter* table,
                           uint32_t* set_length) {
    if (!elements)
        die(exit_config, "blank field definition");
    // A copy of its own: char_split's is the caller's to free by its first piece.
    std::string text = definition;
    const heap_array pieces(char_split(text.data(), ',', 0));
    new_template made;
    *set_length += 4;
    for (char** piece = pieces.get(); *piece; ++piece) {
        const item parsed = parse_item(*piece);
        const field_target target = resolve_element(parsed, elements);
        *set_length += add_field(made, target, resolve_value(parsed, table));
        check_lengths(*set_length, made.record_length);
    }
    check_lengths(*set_length, made.record_length);  // of a template without fields
    const size_t size = std::span(made.elements).size_bytes();
    export_template& result = made.result;
    result.elements = static_cast<const template_element**>(malloc_wrapper(size, 0));
    std::copy(made.elements.begin(), made.elements.end(), result.elements);
    result.field_count = static_cast<uint16_t>(made.elements.size());
    result.record_length = static_cast<uint16_t>(made.record_length);
    result.required = getter_bitmap_from_list(result.getters);
    result.data = make_data(result.getters);
    return made;
}

// Gives the collection its templates in their order, and the plan.
void settle_templates(template_collection& collection, std::vector<new_template>& templates) {
    // Templates that require equally many getters stay in the order of their definitions.
    std::stable_sort(templates.begin(), templates.end(),
                     [](const new_template& left, const new_template& right) {
                         return exporter_template_cmp_rev(&left.result, &right.result) < 0;
                     });
    collection.count = static_cast<int32_t>(templates.size());
    collection.templates = static_cast<export_template*>(
        malloc_wrapper(templates.size() * sizeof(export_template), 1));
    std::vector<uint32_t> enterprises;
    for (size_t i = 0; i < templates.size(); ++i) {
        const new_template& made = templates[i];
        collection.templates[i] = made.result;
        collection.largest_record = std::max(collection.largest_record, made.record_length);
        enterprises.insert(enterprises.end(), made.enterprises.begin(), made.enterprises.end());
    }
    collection.plan = new template_plan(collection, enterprises);
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
    std::vector<new_template> templates;
    uint32_t set_length = 4;
    for (; definitions && *definitions; ++definitions)
        templates.push_back(make_template(*definitions, elements, getters, &set_length));
    if (templates.empty())
        return nullptr;
    auto* collection = make_lifelong<template_collection>();
    collection->getters = getters;
    settle_templates(*collection, templates);
    verbose_msg(0, "Templates OK");
    return collection;
}
