// A second flow cache: a vector of slots and the rules one by one, no bit tricks, no arrays side by
// side. Time differences are real ones: nothing wraps. The tests hold the program's queue against
// it.
#pragma once

#include <cstdint>
#include <vector>

#include "kestrelexp/plugin.h"
#include "kestrelexp/record.h"

namespace kestrel_model {

// A whole record, base part and data space.
class model_record {
  public:
    explicit model_record(size_t data_size) : words_((FLOW_RECORD_BASE_SIZE + data_size + 7) / 8) {}

    flow_record& fields() { return *reinterpret_cast<flow_record*>(words_.data()); }
    const flow_record& fields() const {
        return *reinterpret_cast<const flow_record*>(words_.data());
    }
    uint8_t* bytes() { return reinterpret_cast<uint8_t*>(words_.data()); }
    const uint8_t* bytes() const { return reinterpret_cast<const uint8_t*>(words_.data()); }

  private:
    std::vector<uint64_t> words_;
};

struct model_settings {
    int exponent;
    uint64_t active_ns;
    uint64_t inactive_ns;
    size_t data_size;
    std::vector<process_plugin> plugins;
};

struct model_statistics {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t flows = 0;
    uint64_t collisions = 0;
};

struct model_slot {
    int64_t key = 0;  // negative: a flow is here
    // What is known of the flow apart from its record.
    uint64_t start = 0;
    uint64_t end = 0;
    uint32_t packets = 0;
    uint32_t bytes = 0;
    uint8_t tcp_flags = 0;
    model_record record;
};

class queue_model {
  public:
    explicit queue_model(const model_settings& settings);

    void set_now(uint64_t now_ns) { now_ = now_ns; }
    // The plugins may change the packet.
    void update(model_record& packet, int64_t key);
    void remove(uint32_t slot, int32_t reason);
    void output(model_record& record, int32_t reason);
    void try_to_remove();
    void restart_scan();
    void flush();

    std::vector<model_record> take_output();
    model_statistics statistics;
    uint32_t record_count() const;
    const std::vector<model_slot>& slots() const { return slots_; }

    // How often things happened, so that a test can tell that it was worth running.
    struct happenings {
        uint64_t ended[4] = {};  // by reason
        uint64_t joined = 0;
        uint64_t victims = 0;
        uint64_t invalid = 0;
        uint64_t scans_forced = 0;
        uint64_t scans_caught_up = 0;
        uint64_t exported_at_once = 0;
    } happened;

  private:
    bool is_idle(const model_slot& slot) const;
    void finish_scan();
    bool ends_the_flow(const model_slot& slot, const flow_record& packet, int32_t* reason) const;
    void join(uint32_t slot, model_record& packet);
    uint32_t make_room(uint32_t start);
    void start_flow(uint32_t slot, model_record& packet, int64_t key);
    void refresh_record(model_slot& slot);

    model_settings settings_;
    std::vector<model_slot> slots_;
    uint64_t now_ = 0;
    int64_t cursor_;
    unsigned forced_checks_ = 0;
    uint64_t victim_counter_ = 0;
    std::vector<model_record> out_;
};

}  // namespace kestrel_model
