// The record loop: takes finished flows from the storage, runs the global filters, and for each
// export in command-line order its filters, its sampling and the export itself. Main thread only;
// allocates nothing. Filters and exports are called from here and from nowhere else.
#include "core/record_loop.h"

#include <atomic>
#include <cstdlib>
#include <span>

#include "core/run_configuration.h"
#include "core/signals.h"
#include "core/utils/clock.h"
#include "core/utils/log.h"
#include "kestrelexp/flow.h"
#include "kestrelexp/program.h"
#include "kestrelexp/storage.h"

namespace kestrel {

namespace {

constexpr int get_timeout_ms = 50;

// The first non-zero answer of a filter, or 0 when all keep the record.
inline int32_t run_filters(std::span<const filter_plugin> filters, flow_record* record) {
    for (const filter_plugin& filter : filters)
        if (const int32_t result = filter.filter(filter.instance, record); result != 0)
            return result;
    return 0;
}

inline void call_export(const export_entry& entry, flow_record* record) {
    entry.plugin.export_record(entry.instance, record);
}

// Exports with the record's sampling showing the driver's rate times the export's own. The product
// is cut to 16 bits, and the division afterwards does not undo the cut: the exports behind this one
// see what it left.
void export_sampled(const export_entry& entry, flow_record* record) {
    const int32_t rate = entry.sampling_rate;
    const bool is_driver_sampled = record->sampling != 0;
    const int64_t product = int64_t{is_driver_sampled ? record->sampling : 1} * rate;
    record->sampling = static_cast<uint16_t>(product);
    call_export(entry, record);
    record->sampling =
        is_driver_sampled ? static_cast<uint16_t>(record->sampling / rate) : uint16_t{0};
}

// Returns whether the record reached the export. Interface numbers stamped here stay in the record
// for the exports that follow.
inline bool dispatch(const export_entry& entry, flow_record* record, uint64_t record_counter) {
    if (entry.snmp_input_if != SNMP_INTERFACE_UNSET)
        record->inputsnmp = entry.snmp_input_if;
    if (entry.snmp_output_if != SNMP_INTERFACE_UNSET)
        record->outputsnmp = entry.snmp_output_if;
    if (run_filters(entry.filters, record) != 0)
        return false;

    if (entry.sampling_rate == 0) {
        call_export(entry, record);
        return true;
    }
    // The counter runs over all records, so exports of the same rate pick the same ones.
    if (record_counter % static_cast<uint64_t>(entry.sampling_rate) != 0)
        return false;
    export_sampled(entry, record);
    return true;
}

void flush_exports(std::span<const export_entry> exports) {
    for (const export_entry& entry : exports)
        entry.plugin.flush(entry.instance);
}

// The remover clears the flush flag with release once every flushed flow has been taken from the
// storage, so its acquisition here sees that all of them were.
bool is_stop_due() {
    if (exit_requested.load(std::memory_order_relaxed) == 0)
        return false;
    report_interrupt();
    return std::atomic_ref<uint32_t>(queue_force_flush).load(std::memory_order_acquire) == 0;
}

}  // namespace

}  // namespace kestrel

int main_record_loop(temporal_storage* storage, unsigned, run_configuration* configuration) {
    using namespace kestrel;
    const std::span<const filter_plugin> global_filters = configuration->global_filters;
    const std::span<const export_entry> exports = configuration->exports;
    uint64_t record_counter = 0;  // records that passed the global filters
    idle_watch idle(timer_get_sec());

    do {
        auto* const record =
            static_cast<flow_record*>(temporal_storage_get(storage, get_timeout_ms));
        if (record != nullptr) {
            // A global filter is expected to keep everything; one that does not ends the run.
            if (const int32_t rejection = run_filters(global_filters, record); rejection != 0)
                return rejection;
            for (const export_entry& entry : exports)
                if (dispatch(entry, record, record_counter))
                    idle.note_export();
            ++record_counter;
        } else if (idle.is_flush_due(timer_get_sec())) {
            verbose_msg(3, "Timeout occured, flushing flows");
            flush_exports(exports);
        }
    } while (!is_stop_due());

    flush_exports(exports);
    verbose_msg(-1, "QUIT signal processed. All data flushed. Exiting ...");
    std::exit(exit_ok);
}
