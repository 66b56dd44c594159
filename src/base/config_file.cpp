// Line-oriented configuration files. Reports nothing: each caller words its own message.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/heap.h"
#include "kestrelexp/service.h"

namespace kestrel {
namespace {

constexpr size_t read_size = 16384;  // a longer line arrives as several, each of 16,383 bytes
constexpr size_t shortest_line = 3;

struct close_file {
    void operator()(FILE* file) const { (void)std::fclose(file); }  // it was only read
};

void drop_line_end(char* line, size_t* length) {
    if (*length > 0 && (line[*length - 1] == '\n' || line[*length - 1] == '\r'))
        line[--*length] = '\0';
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

char** read_config(const char* path) {
    const std::unique_ptr<FILE, close_file> file(std::fopen(path, "re"));
    if (!file)
        return nullptr;
    std::vector<char*> lines;
    char line[read_size];
    while (std::fgets(line, sizeof line, file.get())) {
        size_t length = std::strlen(line);
        drop_line_end(line, &length);
        drop_line_end(line, &length);
        // A '#' discards its whole line wherever it stands: a value can never carry a comment.
        if (length >= shortest_line && !std::strchr(line, '#'))
            lines.push_back(heap_copy(line, length).release());
    }
    char** result = static_cast<char**>(malloc_wrapper((lines.size() + 1) * sizeof(char*), 0));
    std::copy(lines.begin(), lines.end(), result);
    return result;
}
