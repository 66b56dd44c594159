// Configuration files: any content. Input: the file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "kestrelexp/service.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

// One read of the file: up to and with the next line end, 16,383 bytes at most.
std::string next_read(const std::string& content, size_t* at) {
    size_t end = content.find('\n', *at);
    end = end == std::string::npos ? content.size() : end + 1;
    if (end > *at + 16'383)
        end = *at + 16'383;
    const std::string piece = content.substr(*at, end - *at);
    *at = end;
    return piece.c_str();  // a NUL ends a line for whoever reads it
}

std::vector<std::string> expected_lines(const std::string& content) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < content.size();) {
        std::string line = next_read(content, &at);
        for (int ends = 0; ends < 2; ++ends) {
            if (line.ends_with('\n') || line.ends_with('\r'))
                line.pop_back();
        }
        if (line.size() >= 3 && line.find('#') == std::string::npos)
            lines.push_back(line);
    }
    return lines;
}

int file_in_memory() {
    static const int file = memfd_create("config", MFD_CLOEXEC);
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int file = file_in_memory();
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size))
        kestrel_fuzz::fail("no file");
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    char** actual = read_config(path.c_str());
    if (!actual)
        kestrel_fuzz::fail("the file was not opened");
    const std::vector<std::string> expected =
        expected_lines({reinterpret_cast<const char*>(data), size});
    size_t n = 0;
    for (; actual[n]; ++n) {
        if (n >= expected.size() || expected[n] != actual[n])
            kestrel_fuzz::fail("another line");
        free(actual[n]);
    }
    if (n != expected.size())
        kestrel_fuzz::fail("another number of lines");
    free(actual);
    return 0;
}
