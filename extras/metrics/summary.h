// The page's data as JSON. README.md says what each field means.
#pragma once

#include <string>
#include <vector>

#include "readiness.h"
#include "readings.h"
#include "sampler.h"

namespace metrics {

// What is asked for.
struct summary_request {
    double now;             // s since the epoch
    double since;           // history after this time, s since the epoch
    std::string_view self;  // the label of the export that shows it
};

std::string summary_json(const reading_list& list, sampler& source, const summary_request& request);

std::string readiness_json(const std::vector<missing_part>& missing);

}  // namespace metrics
