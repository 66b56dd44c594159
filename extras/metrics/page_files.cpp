#include "page_files.h"

// page_data.c
#define EMBEDDED(symbol) \
    extern "C" __attribute__((visibility("hidden"))) const char symbol##_begin[], symbol##_end[]

EMBEDDED(page_index);
EMBEDDED(page_style);
EMBEDDED(page_script);
EMBEDDED(page_charts);
EMBEDDED(page_icon);
EMBEDDED(chart_script);
EMBEDDED(chart_style);

namespace metrics {

namespace {

constexpr const char* html = "text/html; charset=utf-8";
constexpr const char* css = "text/css; charset=utf-8";
constexpr const char* script = "text/javascript; charset=utf-8";

const page_file files[] = {
    {"/", html, {page_index_begin, page_index_end}},
    {"/page.css", css, {page_style_begin, page_style_end}},
    {"/page.js", script, {page_script_begin, page_script_end}},
    {"/charts.js", script, {page_charts_begin, page_charts_end}},
    {"/icon.svg", "image/svg+xml", {page_icon_begin, page_icon_end}},
    {"/dygraph.js", script, {chart_script_begin, chart_script_end}},
    {"/dygraph.css", css, {chart_style_begin, chart_style_end}},
};

}  // namespace

const page_file* find_page_file(std::string_view path) {
    for (const page_file& file : files)
        if (file.path == path)
            return &file;
    return nullptr;
}

}  // namespace metrics
