// Runs a fuzz target once over each file that it is given, and over each file of a folder. No
// inputs at all is a failure: a corpus that is not found tests nothing.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/fuzz_target.h"

namespace {

void run(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    // A copy of exactly its size, so that a sanitizer sees every read outside.
    auto* exact = new uint8_t[content.size()];
    std::copy(content.begin(), content.end(), exact);
    std::printf("%s: %zu bytes\n", path.filename().c_str(), content.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(exact, content.size());
    delete[] exact;
}

}  // namespace

int main(int argc, char** argv) {
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            run(argv[i]);
            ++inputs;
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            run(entry.path());
            ++inputs;
        }
    }
    std::printf("%zu inputs\n", inputs);
    return inputs == 0 ? 1 : 0;
}
