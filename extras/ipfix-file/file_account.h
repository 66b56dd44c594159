// What the export counts beside its outlet, which counts what is sent and lost. Made while the
// export is initialised.
#pragma once

#include <kestrelexp/metrics.h>
#include <kestrelexp/record.h>

#include <cstdint>

namespace ipfix_file {

class file_account {
  public:
    file_account();

    // By the record loop: no template takes the record.
    void add_refused(const flow_record& record) const;

    // By the worker, from its start on.
    void note_success() const;  // messages have reached the disk
    void note_failure() const;  // they could not be written, and will be tried again
    void count_file() const;    // one is complete

  private:
    metric_cell* cells_;
};

}  // namespace ipfix_file
