// Requests to the metrics plugin, and labels of other plugins: any content. Input: method, path and
// time, a line each; the rest are labels.
#include <algorithm>
#include <cmath>
#include <string_view>

#include "extras/metrics/page_files.h"
#include "extras/metrics/readings.h"
#include "extras/metrics/request.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

using kestrel_fuzz::fail;
using metrics::target;

std::string_view take_line(std::string_view& text) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

void check_target(std::string_view method, std::string_view path) {
    const target found = metrics::target_of(method, path);
    const bool is_read = method == "GET" || method == "HEAD";
    if (!is_read && found != target::wrong_method && found != target::not_found)
        fail("a method that is not allowed is answered");
    // The server takes the file without a further look.
    if (found == target::page_file && metrics::find_page_file(path) == nullptr)
        fail("there is no such file");
    if (found != target::not_found && !path.starts_with('/'))
        fail("a path without a slash is found");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string_view method = take_line(text), path = take_line(text);
    check_target(method, path);
    const std::optional<double> since = metrics::parse_since(take_line(text));
    if (since && (!std::isfinite(*since) || *since < 0))
        fail("a time that is none");
    size_t length = 0;
    for (const metrics::label& one : metrics::parse_labels(text))
        length += one.name.size() + one.value.size() + 3;  // at least ="" around them
    if (length > text.size())
        fail("labels out of nothing");
    return 0;
}
