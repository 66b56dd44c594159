// A text file of a test's own, gone with the object.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kestrel_test {

class text_file {
  public:
    explicit text_file(const std::string& content) : file_(memfd_create("text", MFD_CLOEXEC)) {
        const auto size = static_cast<ssize_t>(content.size());
        if (file_ < 0 || write(file_, content.data(), content.size()) != size) {
            std::perror("text_file");
            std::abort();
        }
        path_ = "/proc/self/fd/" + std::to_string(file_);
    }
    ~text_file() { close(file_); }
    text_file(const text_file&) = delete;
    text_file& operator=(const text_file&) = delete;

    const char* path() const { return path_.c_str(); }

  private:
    int file_;
    std::string path_;
};

}  // namespace kestrel_test
