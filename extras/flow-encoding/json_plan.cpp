// From names of fields to the steps of an encoder: a tree of objects, members of one name in one
// place whatever the order of the fields, then the steps that write it. While the program starts.
#include "json_plan.h"

#include <kestrelexp/service.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>

#include "derived_fields.h"
#include "json_text.h"
#include "json_values.h"
#include "protocol_names.h"

namespace flow_encoding {
namespace {

// An object of the Elastic Common Schema for what the schema has no name for.
constexpr const char* own_object = "kestrelexp";
// What a getter of a plugin may write beyond its length.
constexpr size_t value_margin = 64;
constexpr size_t longest_number = 8;  // bytes

// ---- The tree ----

struct value_source {
    origin source;
    int32_t form;
    const getter* field;
    const field_names* names;  // of the field; null: those of a plugin
    std::string constant;
};

struct node {
    std::string name;
    std::vector<node> members;         // of an object
    std::vector<value_source> values;  // of a member: the first valid one; of an array: all
    bool is_array = false;

    bool is_object() const { return values.empty(); }
};

node& member_of(node& parent, std::string_view name) {
    for (node& member : parent.members)
        if (member.name == name)
            return member;
    return parent.members.emplace_back(node{std::string(name), {}, {}, false});
}

// The node of a name with dots.
node& node_of(node& root, std::string_view path) {
    node* at = &root;
    for (size_t dot = path.find('.'); dot != path.npos; dot = path.find('.')) {
        at = &member_of(*at, path.substr(0, dot));
        path.remove_prefix(dot + 1);
    }
    return member_of(*at, path);
}

void add_value(node& place, const value_source& value) {
    place.is_array = value.form == FIELD_FORM_LABEL;
    place.values.push_back(value);
}

// ---- Fields ----

// How a value is written that no style knows.
int32_t natural_form(const getter& field) {
    switch (field.length) {
        case 1:
        case 2:
        case 4:
        case 8:
            return FIELD_FORM_NUMBER;
        case 6:
            return FIELD_FORM_MAC;
        case 16:
            return FIELD_FORM_ADDRESS;
        default:
            return FIELD_FORM_TEXT;
    }
}

struct plan_maker {
    const json_settings& settings;
    const getter* getters;
    node root;

    const getter* getter_named(std::string_view name) const {
        for (const getter* entry = getters; entry != nullptr && entry->name != nullptr; ++entry)
            if (name == entry->name)
                return entry;
        return nullptr;
    }

    // Returns whether the style has a name for it.
    bool add_named(const field_names& names, const value_source& value) {
        bool is_named = false;
        for (const field_style_name& one : names.styles[settings.style]) {
            if (one.name == nullptr)
                continue;
            value_source as_named = value;
            as_named.form = one.form;
            add_value(node_of(root, one.name), as_named);
            is_named = true;
        }
        return is_named;
    }

    void add_under_own_name(const char* name, const value_source& value) {
        node& parent = settings.style == FIELD_STYLE_ECS ? member_of(root, own_object) : root;
        add_value(member_of(parent, name), value);
    }

    value_source source_of(const derived_field& row) const {
        value_source value{row.source, FIELD_FORM_NUMBER, nullptr, nullptr, {}};
        if (row.source == origin::constant)
            value.constant = row.constant != nullptr ? row.constant : '"' + settings.sampler + '"';
        return value;
    }

    void add_derived(const derived_field& row) {
        if (!add_named(row.names, source_of(row)))
            add_under_own_name(row.names.name, source_of(row));
    }

    void add_field(const getter& field) {
        const field_names* const names = field_names_of(field.name);
        const value_source value{origin::field, natural_form(field), &field, names, {}};
        if (names == nullptr || !add_named(*names, value))
            add_under_own_name(field.name, value);
    }

    // Whether it is in a line whose fields nobody chose.
    bool is_usual(const derived_field& row) const {
        if (row.source == origin::community_id && settings.style == FIELD_STYLE_GOFLOW2)
            return settings.seed.has_value();
        return row.names.styles[settings.style][0].name != nullptr;
    }

    // All that the style names, and what plugins add.
    void add_all() {
        for (const derived_field& row : derived_fields)
            if (is_usual(row))
                add_derived(row);
        for (const getter* entry = getters; entry != nullptr && entry->name != nullptr; ++entry) {
            const field_names* const names = field_names_of(entry->name);
            if (names == nullptr || names->styles[settings.style][0].name != nullptr)
                add_field(*entry);
        }
    }

    // Returns whether there is such a field.
    bool add_chosen(std::string_view name) {
        if (const getter* const field = getter_named(name); field != nullptr) {
            add_field(*field);
            return true;
        }
        for (const derived_field& row : derived_fields)
            if (name == row.names.name) {
                add_derived(row);
                return true;
            }
        return false;
    }

    bool add_fields(std::string& fault) {
        std::string_view left = settings.fields;
        if (left.empty())
            add_all();
        while (!left.empty()) {
            const size_t length = std::min(left.find('#'), left.size());
            const std::string_view name = left.substr(0, length);
            if (!name.empty() && !add_chosen(name)) {
                fault = "there is no field " + std::string(name);
                return false;
            }
            left.remove_prefix(std::min(length + 1, left.size()));
        }
        return true;
    }
};

// ---- The steps ----

// Bytes that a value takes at most.
size_t room_of(const value_source& value) {
    switch (value.source == origin::community_id ? FIELD_FORM_TEXT : value.form) {
        case FIELD_FORM_ADDRESS:
            return address_room;
        case FIELD_FORM_MAC:
        case FIELD_FORM_MAC_HYPHENS:
            return mac_room;
        case FIELD_FORM_TIME:
            return time_room;
        case FIELD_FORM_TEXT:
            return text_room(value.field != nullptr ? value.field->length : key_piece);
        default:
            return 2 * key_piece;  // numbers, and names in whole pieces
    }
}

// What goflow2 writes where there is no value.
const char* text_of_nothing(int32_t form) {
    switch (form) {
        case FIELD_FORM_ADDRESS:
        case FIELD_FORM_TEXT:
        case FIELD_FORM_DIGITS:
            return "\"\"";
        case FIELD_FORM_MAC:
            return "\"00:00:00:00:00:00\"";
        case FIELD_FORM_RATE:
            return "1";
        default:
            return "0";
    }
}

struct step_writer {
    json_plan& plan;
    bool has_all_members;  // those without a value too
    uint8_t depth = 0;

    // The text of a key with what follows it. Elements of arrays and the whole have none.
    static std::string key_text(std::string_view name, std::string_view rest) {
        std::string text(text_room(name.size()), '\0');
        text.resize(name.empty() ? 0
                                 : static_cast<size_t>(put_text(text.data(), name) - text.data()));
        if (!name.empty())
            text += ':';
        return text.append(rest);
    }

    void set_key(step& to, std::string text) {
        plan.longest += text.size();
        to.key_length = static_cast<uint16_t>(text.size());
        text.append(key_piece, '\0');
        plan.texts.push_back(std::move(text));
    }

    // A step copies one piece; the pieces before it are steps of their own. Members that may write
    // nothing have short keys.
    void add_key(step& last, std::string_view text) {
        for (; text.size() > key_piece; text.remove_prefix(key_piece)) {
            step before{.put = put_constant, .source = origin::key, .test = last.test};
            set_key(before, std::string(text.substr(0, key_piece)));
            plan.steps.push_back(before);
        }
        set_key(last, std::string(text));
    }

    uint16_t test_of(const getter& field) {
        if (field.valid == record_valid_ok)
            return no_test;
        const auto known =
            std::find_if(plan.tests.begin(), plan.tests.end(), [&](const validity_test& test) {
                return test.valid == field.valid && test.context == field.context;
            });
        const auto place = static_cast<uint16_t>(known - plan.tests.begin());
        if (known == plan.tests.end())
            plan.tests.push_back({field.valid, field.context, false});
        return place;
    }

    // Returns whether there always is such a value.
    bool add_value(std::string_view name, const value_source& value) {
        step added{.source = value.source, .form = static_cast<uint8_t>(value.form)};
        if (value.field != nullptr) {
            added.field = value.field;
            added.length = value.field->length;
            added.test = test_of(*value.field);
        }
        if (value.names != nullptr) {
            added.offset = value.names->offset;
            added.width = value.names->width;
        }
        added.put = member_function(added);
        const bool is_constant = value.source == origin::constant;
        add_key(added, key_text(name, is_constant ? value.constant + ',' : ""));
        plan.longest += room_of(value) + 1;
        plan.steps.push_back(added);
        return added.test == no_test;
    }

    void add_member(const node& member) {
        const size_t first = plan.steps.size();
        bool is_certain = false;
        for (const value_source& value : member.values) {
            is_certain = add_value(member.name, value);
            if (is_certain)
                break;
        }
        if (!is_certain && has_all_members) {
            const int32_t form = member.values.front().form;
            (void)add_value(member.name,
                            {origin::constant, form, nullptr, nullptr, text_of_nothing(form)});
        }
        // One of them is enough. Pieces of a key go on to its end.
        for (size_t n = first; n < plan.steps.size(); ++n)
            if (plan.steps[n].source != origin::key)
                plan.steps[n].advance = static_cast<uint16_t>(plan.steps.size() - n);
    }

    void add_array(const node& array) {
        add_open(array.name, "[");
        for (const value_source& value : array.values) {
            (void)add_value({}, value);
        }
        add_close(']', has_all_members);
    }

    void add_open(std::string_view name, std::string_view bracket) {
        step added{.put = put_open, .depth = depth++};
        set_key(added, key_text(name, bracket));
        plan.steps.push_back(added);
    }

    void add_close(char end, bool is_kept) {
        step added{.put = put_close, .depth = --depth, .end = end, .is_kept = is_kept};
        set_key(added, {});
        plan.longest += 2;
        plan.steps.push_back(added);
    }

    void add_object(const node& object, bool is_kept) {
        add_open(object.name, "{");
        for (const node& member : object.members) {
            if (member.is_object())
                add_object(member, false);
            else if (member.is_array)
                add_array(member);
            else
                add_member(member);
        }
        add_close('}', is_kept);
    }
};

// ---- What values need ----

void set_quoted(quoted_name& to, std::string_view name) {
    const std::string text = '"' + std::string(name) + "\",";
    std::memcpy(to.text.data(), text.data(), std::min(text.size(), to.text.size()));
    to.length = static_cast<uint8_t>(text.size());
}

void set_protocols(json_plan& plan, bool in_lower_case) {
    for (unsigned number = 0; number < plan.protocols.size(); ++number) {
        const auto narrow = static_cast<uint8_t>(number);
        std::string name(protocol_name(narrow));
        if (in_lower_case && !is_assigned(narrow))
            continue;  // the schema wants names of protocols there
        if (in_lower_case)
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char letter) {
                return static_cast<char>(std::tolower(letter));
            });
        set_quoted(plan.protocols[number], name);
    }
}

size_t longest_value(const getter* getters) {
    size_t longest = longest_number;
    for (const getter* entry = getters; entry != nullptr && entry->name != nullptr; ++entry)
        longest = std::max(longest, size_t{entry->length});
    return longest;
}

constexpr bool always = true;

// After this nothing moves: texts and tests have their final places.
void set_places(json_plan& plan) {
    for (size_t n = 0; n < plan.steps.size(); ++n) {
        step& one = plan.steps[n];
        one.key = plan.texts[n].data();
        one.is_valid = one.test == no_test ? &always : &plan.tests[one.test].passed;
    }
    plan.steps.push_back({.put = put_nothing, .is_valid = &always});
}

}  // namespace

json_plan* make_json_plan(const json_settings& settings, const getter* getters,
                          std::string& fault) {
    plan_maker maker{settings, getters, {}};
    if (!maker.add_fields(fault))
        return nullptr;
    auto* const plan = new json_plan();
    plan->seed = settings.seed.value_or(0);
    plan->value.resize(longest_value(getters) + value_margin);
    set_protocols(*plan, settings.style == FIELD_STYLE_ECS);
    step_writer{*plan, settings.style == FIELD_STYLE_GOFLOW2}.add_object(maker.root, true);
    plan->longest += 2 * key_piece;
    set_places(*plan);
    return plan;
}

}  // namespace flow_encoding
