// Flow records as JSON: the library that exports of JSON link. An export opens an encoder while the
// program starts, and hands it one record after the other on the thread of the record loop. It
// allocates nothing after its start and knows nothing of where the bytes go.
#pragma once

#include <kestrelexp/field.h>
#include <kestrelexp/getter.h>
#include <kestrelexp/record.h>
#include <kestrelexp/service.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace flow_encoding {

// What an encoder is made from.
struct json_settings {
    field_style style = FIELD_STYLE_GOFLOW2;
    std::string fields;  // names of fields with '#' in between; empty: all that the style names
    // Of the Community ID, which goflow2 does not write: its style has it with a seed or by name.
    std::optional<uint16_t> seed;
    std::string sampler;  // the address of this probe, in digits
};

// The parameters that all exports of JSON have.
struct json_parameters {
    static constexpr int32_t no_seed = std::numeric_limits<int32_t>::min();

    char* style = nullptr;  // goflow2 (also when null) or ecs
    char* fields = nullptr;
    int32_t seed = no_seed;
    char* sampler = nullptr;  // null: machine_address()

    // Rows for config_set_values.
    std::array<config_setting, 4> rows();
};

// Returns whether the parameters make sense; stores what they ask for, or what is wrong with them.
bool read_json_settings(const json_parameters& parameters, json_settings& settings,
                        std::string& fault);

// The first address of this machine that is not its loopback's or a link's own, IPv4 before IPv6;
// 127.0.0.1 when there is none.
std::string machine_address();

struct json_plan;

class json_encoder {
  public:
    // getters: the export's table, borrowed for good. Null when a field is not known; fault says
    // which. The encoder lives as long as the program.
    static json_encoder* open(const json_settings& settings, const getter* getters,
                              std::string& fault);

    // Bytes that the object of a record takes at most.
    size_t longest() const;

    // Writes the record as one JSON object without a line end, in pure ASCII or UTF-8, and returns
    // its bytes. to: room for longest() bytes. now_ns: when the flow was received, by the wall
    // clock. One thread at a time.
    size_t encode(const flow_record& record, uint64_t now_ns, char* to);

  private:
    explicit json_encoder(json_plan* plan) : plan_(plan) {}
    json_plan* plan_;
};

}  // namespace flow_encoding
