// The record loop: takes finished flows from the storage, runs the global filters, and for each
// export in command-line order its filters, its sampling and the export itself. Main thread only;
// allocates nothing. Filters and exports are called from here and from nowhere else.
#include "engine/record_loop.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <span>
#include <vector>

#include "base/clock.h"
#include "base/heartbeat.h"
#include "base/log.h"
#include "base/outlet.h"
#include "base/packet_clock.h"
#include "base/wire.h"
#include "engine/accounts.h"
#include "engine/replay_stamp.h"
#include "engine/run_configuration.h"
#include "engine/signals.h"
#include "engine/switch.h"
#include "flow/flush_request.h"
#include "flow/ring_group.h"
#include "flow/slot_record.h"
#include "kestrelexp/program.h"
#include "kestrelexp/storage.h"

namespace kestrel {

namespace {

constexpr int get_timeout_ms = 50;
constexpr uint32_t not_exported = 0xFFFFFFFF;  // what an export answers
// Of a replay: in a longer silence the exports have nothing more to say.
constexpr unsigned silence_flushes_limit = 16;

struct verdict {
    int32_t rejection;  // the first non-zero answer of a filter; 0: all keep the record
    size_t position;    // of the filter that gave it
};

inline verdict run_filters(std::span<const filter_plugin> filters, flow_record* record) {
    for (size_t n = 0; n < filters.size(); ++n)
        if (const int32_t result = filters[n].filter(filters[n].instance, record); result != 0)
            return {result, n};
    return {0, filters.size()};
}

// Returns whether the export took the record.
inline bool call_export(const export_entry& entry, flow_record* record) {
    return entry.plugin.export_record(entry.instance, record) != not_exported;
}

// Exports with the record's sampling showing the driver's rate times the export's own. The product
// is cut to 16 bits, and the division afterwards does not undo the cut: the exports after this one
// see what it left.
bool export_sampled(const export_entry& entry, flow_record* record) {
    const int32_t rate = entry.sampling_rate;
    const bool is_driver_sampled = record->sampling != 0;
    const int64_t product = int64_t{is_driver_sampled ? record->sampling : 1} * rate;
    record->sampling = static_cast<uint16_t>(product);
    const bool is_taken = call_export(entry, record);
    record->sampling =
        is_driver_sampled ? static_cast<uint16_t>(record->sampling / rate) : uint16_t{0};
    return is_taken;
}

// Returns whether the record reached the export. Interface numbers stamped here stay in the record
// for the exports that follow.
inline bool dispatch(const export_entry& entry, const export_account& account, flow_record* record,
                     uint64_t record_counter) {
    const uint64_t packets = record->packets;
    if (entry.snmp_input_if != SNMP_INTERFACE_UNSET)
        record->inputsnmp = entry.snmp_input_if;
    if (entry.snmp_output_if != SNMP_INTERFACE_UNSET)
        record->outputsnmp = entry.snmp_output_if;
    if (const verdict found = run_filters(entry.filters, record); found.rejection != 0) {
        account.add_filtered(found.position, packets);
        return false;
    }
    if (entry.sampling_rate == 0) {
        account.add_answer(call_export(entry, record), packets);
        return true;
    }
    // The counter runs over all records, so exports of the same rate pick the same ones.
    if (record_counter % static_cast<uint64_t>(entry.sampling_rate) != 0) {
        account.add_unsampled(packets);
        return false;
    }
    account.add_answer(export_sampled(entry, record), packets);
    return true;
}

// Calls the exports that are due, each at a time of its own. Exports that never want to be called
// cost a comparison.
class export_clock {
  public:
    explicit export_clock(std::span<const export_entry> exports) : exports_(exports) {
        for (const export_entry& entry : exports)
            due_ns_.push_back(entry.tend != nullptr ? 0 : never);
        next_ns_ = earliest();
    }

    void tend_exports() {
        if (next_ns_ != never) [[unlikely]]
            tend_those_due(timer_get_uptime());
    }

  private:
    static constexpr uint64_t never = UINT64_MAX;

    void tend_those_due(uint64_t now_ns) {
        if (now_ns < next_ns_)
            return;
        for (size_t n = 0; n < exports_.size(); ++n) {
            if (now_ns < due_ns_[n])
                continue;
            const int32_t pause_ms = exports_[n].tend(exports_[n].instance);
            due_ns_[n] =
                pause_ms < 0 ? never : now_ns + static_cast<uint64_t>(pause_ms) * ns_per_ms;
        }
        next_ns_ = earliest();
    }

    uint64_t earliest() const {
        return due_ns_.empty() ? never : *std::ranges::min_element(due_ns_);
    }

    std::span<const export_entry> exports_;
    std::vector<uint64_t> due_ns_;  // by export, on the uptime
    uint64_t next_ns_ = never;      // the least of them
};

struct dispatcher {
    std::span<const filter_plugin> global_filters;
    std::span<const export_entry> exports;
    idle_watch idle;
    export_clock clock;
    record_accounts accounts;
    uint64_t record_counter = 0;  // records that passed the global filters

    explicit dispatcher(const run_configuration& configuration)
        : global_filters(configuration.global_filters),
          exports(configuration.exports),
          idle(timer_get_sec()),
          clock(configuration.exports),
          accounts(configuration) {}
};

// Returns a global filter's rejection, or 0.
inline int32_t deliver(dispatcher& self, flow_record* record) {
    // A global filter is expected to keep everything; one that does not ends the run.
    const int32_t rejection = run_filters(self.global_filters, record).rejection;
    if (rejection != 0) {
        self.accounts.add_rejected(record->packets);
        return rejection;
    }
    self.accounts.add_handed(record->packets);
    for (size_t n = 0; n < self.exports.size(); ++n)
        if (dispatch(self.exports[n], self.accounts.of_export(n), record, self.record_counter))
            self.idle.note_export();
    ++self.record_counter;
    return 0;
}

void flush_exports(const dispatcher& self) {
    for (const export_entry& entry : self.exports)
        entry.plugin.flush(entry.instance);
}

// Returns whether the exports were flushed.
bool flush_when_idle(dispatcher& self) {
    if (!self.idle.is_flush_due(timer_get_sec()))
        return false;
    verbose_msg(3, "Timeout occured, flushing flows");
    flush_exports(self);
    return true;
}

// Whether no flush is pending and every record that the last one put into the rings was taken.
bool is_flush_exported(const ring_group& rings) {
    return !is_flush_pending() && rings.is_flush_taken();
}

// Whether the run is over: an interrupt has come and all flushed flows were exported. What was
// flushed because the clock jumped still belongs to the start-up time from before; what comes after
// it to the one from now.
bool is_stop_due(const ring_group& rings) {
    const bool is_exit_wanted = exit_requested.load(std::memory_order_relaxed) != 0;
    if (!is_exit_wanted && !is_clock_jump_pending()) [[likely]]
        return false;
    report_interrupt();
    if (!is_flush_exported(rings))
        return false;
    if (is_clock_jump_pending()) {
        take_clock_jump();
        (void)timer_startup_time_update();  // the uptime that it returns is not needed
    }
    return is_exit_wanted;
}

// Those of the lanes where there are several; storage is that of the first.
std::vector<temporal_storage*> rings_of(const run_configuration& configuration,
                                        temporal_storage* storage) {
    const flow_switch* const sw = configuration.input_switch;
    return sw == nullptr || sw->next_lane == nullptr ? std::vector{storage} : final_rings(*sw);
}

enum class ending : uint8_t { flushed, rejected };

// Nothing more is handed to the exports: what waits in outlets is sent or lost before it is summed
// up.
void close_accounts(const run_configuration& run, ending how) {
    // Nobody takes finished flows any more, so what is captured while outlets drain would be lost.
    if (run.input_switch != nullptr)
        ask_reader(*run.input_switch, close_input);
    close_outlets();
    if (how == ending::rejected)
        count_all_unflushed(run);
    say_sum(run);
}

[[noreturn]] void say_farewell(int status) {
    verbose_msg(-1, "QUIT signal processed. All data flushed. Exiting ...");
    std::exit(status);
}

// Lets the packet clock go on to the time given. The silence up to then is a live one in short: the
// checks for idle exports are made at the times at which the loop would have found no record.
void pass_silence(dispatcher& self, uint64_t until_ns) {
    const uint64_t first_check_ns = timer_get_nsec() + get_timeout_ms * ns_per_ms;
    for (unsigned flushes = 0; flushes < silence_flushes_limit;) {
        const uint64_t due_ns = (self.idle.next_check_s() + 1) * ns_per_second;
        const uint64_t check_ns = std::max(first_check_ns, due_ns);
        if (check_ns >= until_ns)
            break;
        packet_clock_advance(check_ns);
        flushes += flush_when_idle(self);
    }
    packet_clock_advance(until_ns);
}

// What has come out of the flow cache.
struct replay_output {
    uint64_t flows;
    uint64_t packets;
};

void say_totals(const replay_totals& read, const replay_output& out) {
    verbose_msg(0, "Input ended: %lu packets read, %lu in %lu flows, %lu no flow", read.frames,
                out.packets, out.flows, read.no_flow);
}

}  // namespace

int replay_record_loop(temporal_storage* storage, unsigned record_size,
                       run_configuration* configuration) {
    dispatcher self(*configuration);
    const slot_record flow(record_size);
    replay_output out{};
    own_heartbeat = &record_loop_heartbeat;
    for (;;) {
        record_loop_heartbeat.beat();
        report_interrupt();
        auto* const slot = static_cast<uint8_t*>(temporal_storage_get(storage, get_timeout_ms));
        if (slot == nullptr)
            continue;
        const auto stamp = load_native<replay_stamp>(slot + record_size);
        pass_silence(self, stamp.now_ns);
        self.clock.tend_exports();
        if (stamp.ended != nullptr) {
            flush_exports(self);
            say_totals(*stamp.ended, out);
            close_accounts(*configuration, ending::flushed);
            say_farewell(stamp.ended->has_failed ? exit_input_failed : exit_ok);
        }
        flow_record& record = flow.in(slot);
        out.flows += 1;
        out.packets += record.packets;
        if (const int32_t rejection = deliver(self, &record); rejection != 0) {
            close_accounts(*configuration, ending::rejected);
            return rejection;
        }
    }
}

}  // namespace kestrel

int main_record_loop(temporal_storage* storage, unsigned record_size,
                     run_configuration* configuration) {
    using namespace kestrel;
    dispatcher self(*configuration);
    const slot_record flow(record_size);
    ring_group rings(rings_of(*configuration, storage));

    own_heartbeat = &record_loop_heartbeat;
    do {
        record_loop_heartbeat.beat();
        self.clock.tend_exports();
        void* const slot = rings.get(get_timeout_ms);
        if (slot == nullptr)
            (void)flush_when_idle(self);
        else if (const int32_t rejection = deliver(self, &flow.in(slot)); rejection != 0) {
            close_accounts(*configuration, ending::rejected);
            return rejection;
        }
    } while (!is_stop_due(rings));

    flush_exports(self);
    close_accounts(*configuration, ending::flushed);
    say_farewell(exit_ok);
}
