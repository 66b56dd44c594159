// options-refresh-time=SECONDS: what an export tells its collector about itself, as options
// records. Its parameters, where the values come from, and the messages as they become due. Message
// headers, sequence numbers and sending stand with the exporters.
//
// One thread asks for the messages: the record loop's, or the worker of an export in the
// background. The record loop alone looks at the rates of records.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/counters.h"
#include "base/observation.h"
#include "export/options_form.h"
#include "export/options_schedule.h"
#include "kestrelexp/record.h"
#include "kestrelexp/service.h"

namespace kestrel {

struct options_settings {
    static constexpr int32_t not_given = INT32_MIN;

    int32_t refresh_s = not_given;
    char* sampling_elements = nullptr;

    // Rows for config_set_values.
    std::array<config_setting, 2> rows() {
        return {{{"options-refresh-time", &refresh_s, CONFIG_INTEGER},
                 {"sampling-elements", &sampling_elements, CONFIG_STRING}}};
    }
};

// Whether options records are asked for. Settings that make no sense end the program (status 255).
bool are_options_wanted(const options_settings& settings);

// The interfaces under the numbers that flow records carry through -N and -n: a number that is
// given there stands for all of them, so it has all their names.
std::vector<observed_interface> as_exported(const std::vector<observed_interface>& observed,
                                            const export_place& place);

class options_records {
  public:
    static constexpr uint32_t sets_size = 1450;  // bytes of sets that a message may carry

    struct message {
        uint32_t length;     // bytes of its sets; 0: none is due
        uint32_t templates;  // in it
        uint32_t records;
    };

    // While the export is initialised. source_id: scope of the records.
    options_records(const options_settings& settings, options_protocol protocol,
                    uint32_t source_id);

    // The record loop: a flow record is exported.
    void note_flow(const flow_record& record) {
        if (record.sampling != last_sampling_) [[unlikely]]
            note_sampling(record.sampling);
    }

    // Whether a message may be sent now, and when to ask again at the latest.
    bool is_due(uint64_t now_ns);
    uint64_t next_look_ns(uint64_t now_ns) const;
    // Fills in the message that is due, to be sent now.
    message next(uint64_t now_ns, std::span<uint8_t> sets);
    void note_connection() { schedule_.note_connection(); }

    // What has become of a message of so many bytes, header included.
    void count(uint32_t length, bool is_sent) const;

  private:
    enum class own_metric { messages, bytes, failures, count };

    void note_sampling(uint16_t sampling);
    void begin_round(uint64_t now_ns);
    void write_head(wire_writer& out, message& made) const;
    void write_interfaces(wire_writer& out, std::span<uint8_t> sets, message& made);

    options_protocol protocol_;
    options_kind sampling_kind_;
    uint32_t source_id_;
    export_place place_;
    std::string label_;
    bool is_random_;
    counter_block<own_metric> counters_;
    options_schedule schedule_;

    uint16_t last_sampling_;      // of a flow record; the record loop's
    std::atomic<uint32_t> rate_;  // one packet in so many; carries no other data: relaxed

    // What the round under way tells.
    uint32_t told_rate_ = 0;
    uint32_t told_version_ = 0;
    std::vector<observed_interface> told_interfaces_;
    size_t next_interface_ = 0;
    bool is_head_told_ = false;
};

}  // namespace kestrel
