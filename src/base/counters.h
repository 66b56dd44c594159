// What the program's own code counts with: tables of metrics (kestrelexp/metrics.h) whose rows are
// named by an enumeration. Blocks are made while the program starts; counting goes on on the thread
// that owns the block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kestrelexp/metrics.h"

namespace kestrel {

// The cells of one table. Metric: an enumeration of its rows that ends in `count`. A block has one
// writer at a time; copies name the same cells.
//
// Cost of add: one load, one addition and one store in a cache line of the writer's own.
template <typename Metric>
class counter_block {
  public:
    static constexpr size_t row_count = static_cast<size_t>(Metric::count);

    counter_block() = default;
    counter_block(const metric_row (&rows)[row_count], const char* labels)
        : cells_(metrics_register(rows, row_count, labels)) {}

    void add(Metric metric, uint64_t amount = 1) const { metric_add(cell(metric), amount); }
    void set(Metric metric, uint64_t value) const { metric_set(cell(metric), value); }
    // Any thread.
    uint64_t value(Metric metric) const {
        return __atomic_load_n(&cell(metric)->value, __ATOMIC_RELAXED);
    }

  private:
    metric_cell* cell(Metric metric) const { return cells_ + static_cast<size_t>(metric); }

    metric_cell* cells_ = nullptr;
};

// key="value", the value escaped.
std::string metric_label(std::string_view key, std::string_view value);

// While it lives, metrics_label() tells these labels, then what it told before. Main thread, while
// the program starts.
class metrics_label_scope {
  public:
    explicit metrics_label_scope(std::string labels);
    ~metrics_label_scope();
    metrics_label_scope(const metrics_label_scope&) = delete;
    metrics_label_scope& operator=(const metrics_label_scope&) = delete;

  private:
    std::string outer_;
};

// The sum of all metrics of this name whose labels begin with the given ones (empty: all). Is there
// no such metric, 0.
uint64_t metrics_sum(std::string_view name, std::string_view labels);
// Whether a metric of this name has labels that begin with the given ones.
bool metrics_known(std::string_view name, std::string_view labels);

}  // namespace kestrel
