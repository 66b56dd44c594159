// The files of the page, which are part of this object.
#pragma once

#include <string_view>

namespace metrics {

struct page_file {
    std::string_view path;
    const char* type;
    std::string_view bytes;
};

// Null when there is no such file.
const page_file* find_page_file(std::string_view path);

}  // namespace metrics
