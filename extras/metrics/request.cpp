#include "request.h"

#include <charconv>
#include <cmath>

#include "page_files.h"

namespace metrics {

namespace {

struct path_row {
    std::string_view path;
    target what;
};
constexpr path_row path_rows[] = {
    {"/metrics", target::metrics},
    {"/healthz", target::health},
    {"/readyz", target::readiness},
    {"/api/summary", target::summary},
};

target target_of_path(std::string_view path) {
    for (const path_row& row : path_rows)
        if (row.path == path)
            return row.what;
    return find_page_file(path) != nullptr ? target::page_file : target::not_found;
}

}  // namespace

target target_of(std::string_view method, std::string_view path) {
    const target found = target_of_path(path);
    const bool is_allowed = method == "GET" || method == "HEAD";
    return is_allowed || found == target::not_found ? found : target::wrong_method;
}

std::optional<double> parse_since(std::string_view text) {
    double value;
    const char* const end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, value);
    if (fault != std::errc{} || stop != end || !std::isfinite(value) || value < 0)
        return std::nullopt;
    return value;
}

}  // namespace metrics
