// What a request asks for: the whole of the paths, methods and parameters that are answered. Pure.
#pragma once

#include <optional>
#include <string_view>

namespace metrics {

enum class target { page_file, metrics, health, readiness, summary, not_found, wrong_method };

inline constexpr const char* allowed_methods = "GET, HEAD";

// path: decoded, without parameters. What is no path of ours is not found, whatever the method.
target target_of(std::string_view method, std::string_view path);

// The parameter since=SECONDS of the summary: a number that is not negative. Nothing: it is none.
std::optional<double> parse_since(std::string_view text);

}  // namespace metrics
