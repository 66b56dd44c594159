/* The files of page/ and of the chart library as bytes of this object, put there by the assembler.
 * CMakeLists.txt defines the directories. page_files.cpp has the names under which they are served.
 */
#define EMBED(symbol, file)                                                             \
    __asm__(                                                                            \
        ".pushsection .rodata\n"                                                        \
        ".hidden " #symbol "_begin, " #symbol                                           \
        "_end\n"                                                                        \
        ".globl " #symbol "_begin, " #symbol "_end\n" #symbol "_begin: .incbin \"" file \
        "\"\n" #symbol                                                                  \
        "_end: .byte 0\n"                                                               \
        ".popsection\n");                                                               \
    extern const char symbol##_begin[], symbol##_end[]

EMBED(page_index, METRICS_PAGE_DIR "/index.html");
EMBED(page_style, METRICS_PAGE_DIR "/page.css");
EMBED(page_script, METRICS_PAGE_DIR "/page.js");
EMBED(page_charts, METRICS_PAGE_DIR "/charts.js");
EMBED(page_icon, METRICS_PAGE_DIR "/icon.svg");
EMBED(chart_script, METRICS_CHART_DIR "/dygraph.min.js");
EMBED(chart_style, METRICS_CHART_DIR "/dygraph.min.css");
