// What an encoder is to write for each record, worked out when it is opened: keys as they stand in
// the text, values with the getters that supply them. What changes with a record is said so.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "flow_encoding.h"

namespace flow_encoding {

// Where a value comes from.
enum class origin : uint8_t {
    field,     // a getter
    sequence,  // the number of the record
    received,  // the time that the caller gives
    duration,  // of the flow
    community_id,
    constant,  // the key's text has it
    key,       // nowhere: the step is a piece of a long text
};

// Short texts are copied in whole pieces of this size, so there is that much room after each.
inline constexpr size_t key_piece = 32;

constexpr uint16_t no_test = UINT16_MAX;

struct subject;
struct step;
// Writes what a step and those after it are for, and returns the place after that.
using put_function = char*(char* to, subject& of, const step* at);

struct step {
    put_function* put = nullptr;     // writes a member, or opens or closes an object or array
    const bool* is_valid = nullptr;  // of the record; of what its test says, or always
    origin source = origin::constant;
    uint8_t form = 0;         // enum field_form
    uint8_t depth = 0;        // of what is opened or closed
    char end = 0;             // of what is closed: '}' or ']'
    bool is_kept = false;     // what is closed: even without members
    uint16_t test = no_test;  // of the values' validity; none: always valid
    uint16_t advance = 1;     // steps to go on by after this one, when it has written
    uint16_t offset = 0;      // of a number in the base of the record
    uint16_t width = 0;       // of that number; 0: the field's getter gives it
    uint16_t key_length = 0;
    uint32_t length = 0;        // of the field, bytes
    const char* key = nullptr;  // the member's name and ':', and a bracket or a constant
    const getter* field = nullptr;
};

// A question that several values share is asked once for each record.
struct validity_test {
    getter_valid_function* valid;
    void* context;
    bool passed;  // of the record that is being written
};

// A text in quotes with a comma after it.
struct quoted_name {
    std::array<char, key_piece> text;
    uint8_t length;  // 0: nothing is written
};

struct json_plan {
    std::vector<step> steps;  // the last one ends them
    std::vector<validity_test> tests;
    std::vector<std::string> texts;  // of the keys
    std::array<quoted_name, 256> protocols;
    std::vector<uint8_t> value;  // room for the longest field
    size_t longest = 0;          // bytes of a record at most
    uint32_t sequence = 0;       // of the next record
    uint16_t seed = 0;
};

// Objects in objects are this deep at most.
inline constexpr size_t depth_limit = 8;

// Null when a field is not known; fault says which. Lives as long as the program.
json_plan* make_json_plan(const json_settings& settings, const getter* getters, std::string& fault);

}  // namespace flow_encoding
