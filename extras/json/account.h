// What an output counts beside its outlet: whether it can be written to, and how often it was
// opened anew. The cells are the worker's.
#pragma once

#include <kestrelexp/metrics.h>
#include <kestrelexp/service.h>

#include <cstdint>

namespace json_export {

class output_account {
  public:
    // While the program starts.
    output_account()
        : cells_(metrics_register(rows, sizeof rows / sizeof rows[0], metrics_label())) {}

    void set_up(bool is_up) { metric_set(&cells_[up], is_up ? 1 : 0); }
    void add_reconnect() { metric_add(&cells_[reconnects], 1); }
    void note_success() { metric_set(&cells_[last_success], timer_get_sec()); }

  private:
    enum place { up, reconnects, last_success };
    static constexpr metric_row rows[] = {
        {"kestrelexp_export_up", "1 while the export has its collector, 0 while it does not.",
         nullptr, METRIC_GAUGE},
        {"kestrelexp_export_reconnects_total", "Connections that replaced one that broke.", nullptr,
         METRIC_COUNTER},
        {"kestrelexp_export_last_success_timestamp_seconds",
         "When a message was sent last, seconds since the epoch; 0: never.", nullptr, METRIC_GAUGE},
    };

    metric_cell* cells_;
};

}  // namespace json_export
