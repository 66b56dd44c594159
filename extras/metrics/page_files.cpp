#include "page_files.h"

// page/ and the chart library, put into this object by the assembler. The directories are defined
// by CMakeLists.txt.
#define EMBED(symbol, file)                                                           \
    __asm__(".pushsection .rodata\n" #symbol "_begin: .incbin \"" file "\"\n" #symbol \
            "_end: .byte 0\n.popsection\n");                                          \
    extern const char symbol##_begin[] __attribute__((visibility("hidden")));         \
    extern const char symbol##_end[] __attribute__((visibility("hidden")))

extern "C" {
EMBED(page_index, METRICS_PAGE_DIR "/index.html");
EMBED(page_style, METRICS_PAGE_DIR "/page.css");
EMBED(page_script, METRICS_PAGE_DIR "/page.js");
EMBED(page_charts, METRICS_PAGE_DIR "/charts.js");
EMBED(page_icon, METRICS_PAGE_DIR "/icon.svg");
EMBED(chart_script, METRICS_CHART_DIR "/dygraph.min.js");
EMBED(chart_style, METRICS_CHART_DIR "/dygraph.min.css");
}

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
