// For tests: a directory that goes with its owner, and what is in it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kestrel_test {

class scratch_directory {
  public:
    scratch_directory() {
        if (mkdtemp(path_.data()) == nullptr)
            ADD_FAILURE() << "no directory";
    }
    ~scratch_directory() { remove(); }
    scratch_directory(const scratch_directory&) = delete;
    scratch_directory& operator=(const scratch_directory&) = delete;

    const std::string& path() const { return path_; }
    void remove() const {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    void make() const { std::filesystem::create_directory(path_); }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            found.push_back(entry.path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }
    std::string content(const std::string& name) const {
        std::ifstream file(path_ + "/" + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(path_ + "/" + name, std::ios::binary) << text;
    }

  private:
    std::string path_ = "/tmp/kestrel-test-XXXXXX";
};

}  // namespace kestrel_test
