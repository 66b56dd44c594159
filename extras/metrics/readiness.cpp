#include "readiness.h"

#include "names.h"

namespace metrics {

namespace {

struct part_row {
    std::string_view metric;  // 1: up
    const char* kind;         // and its label
    const char* reason;
};
constexpr part_row part_rows[] = {
    {names::capture_up, "input", "no frames can be taken"},
    {names::export_up, "export", "the export is not up"},
};

}  // namespace

std::vector<missing_part> missing_parts(const reading_list& list) {
    std::vector<missing_part> found;
    // The program tells what it is once all exports are there; one may wait for its collector.
    if (!sum_of(list, names::build_info))
        found.push_back({"program", "kestrelexp", "it is starting"});
    for (const part_row& row : part_rows)
        for (const reading& one : list)
            if (one.name == row.metric && one.value != 1)
                found.push_back({row.kind, std::string(one.label_value(row.kind)), row.reason});
    return found;
}

}  // namespace metrics
