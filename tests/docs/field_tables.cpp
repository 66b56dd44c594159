// Prints what docs/templates.md says of elements and values, and extras/json/README.md of names, as
// Markdown tables, from the rows of the field vocabulary. tools/reference.py asks it: field_tables
// elements, field_tables names, field_tables values.
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "record/elements.h"

namespace {

using namespace kestrel;

const char* yes_or_no(bool condition) {
    return condition ? "yes" : "no";
}

// By number; elements of one number in their order in the IPFIX table.
std::vector<supplied_element> elements_by_number() {
    std::vector<supplied_element> rows(all_elements.begin(), all_elements.end());
    std::ranges::sort(rows, {}, [](const supplied_element& row) {
        return std::pair(row.element.number, row.element.places.in_ipfix);
    });
    return rows;
}

void print_elements() {
    std::printf(
        "| Element | Number | Bytes | IPFIX | NetFlow v9 | Value | Meaning to a collector |\n"
        "|---|---|---|---|---|---|---|\n");
    for (const auto& [element, field] : elements_by_number())
        std::printf("| `%s` | %u | %u | %s | %s | %s | %s |\n", element.name, element.number,
                    element.length, yes_or_no(element.places.in_ipfix.has_value()),
                    yes_or_no(element.places.in_nf9.has_value()),
                    field ? ("`" + std::string(field->name) + "`").c_str() : "", element.meaning);
}

// The -e option that brings a block; empty for the base, which every record has.
std::string option_for(record_block block) {
    switch (block) {
        case record_block::base:
            return "";
        case record_block::vlan:
            return "`-e vlan`";
        case record_block::mpls:
            return "`-e mpls`";
        case record_block::mac:
            return "`-e mac`";
    }
    return "";
}

// What the probe has to be started with: a block for the value to exist, one for it to be stored.
std::string needs(const field_row& row) {
    const std::string exists_with = option_for(row.exists_with);
    const std::string stored_with = option_for(row.value.block);
    if (exists_with.empty() && stored_with.empty())
        return "";
    if (exists_with.empty() || stored_with.empty() || exists_with == stored_with)
        return "; with " + (exists_with.empty() ? stored_with : exists_with) + " only";
    return "; with " + exists_with + " and " + stored_with;
}

void print_values() {
    std::printf(
        "| Value | Bytes | Exists for | Meaning |\n"
        "|---|---|---|---|\n");
    for (const field_row& row : field_rows)
        std::printf("| `%s` | %u | %s | %s%s |\n", row.name, row.value.length,
                    find_validity(row.valid)->flows, row.meaning, needs(row).c_str());
}

// The names of a style, none of them or several.
std::string names_in(const field_style_name (&names)[FIELD_STYLE_NAMES]) {
    std::string text;
    for (const field_style_name& one : names)
        if (one.name != nullptr)
            text += (text.empty() ? "`" : ", `") + std::string(one.name) + "`";
    return text;
}

void print_names() {
    std::printf("| Field | goflow2 | ECS |\n|---|---|---|\n");
    for (const field_row& row : field_rows) {
        const std::string goflow2 = names_in(row.names.goflow2);
        const std::string ecs = names_in(row.names.ecs);
        if (!goflow2.empty() || !ecs.empty())
            std::printf("| `%s` | %s | %s |\n", row.name, goflow2.c_str(), ecs.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view table = argc == 2 ? argv[1] : "";
    if (table == "elements") {
        print_elements();
    } else if (table == "names") {
        print_names();
    } else if (table == "values") {
        print_values();
    } else {
        std::fprintf(stderr, "usage: field_tables elements|names|values\n");
        return 2;
    }
}
