// A file under the temporary directory that goes with its owner.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kestrel_test {

class scratch_file {
  public:
    explicit scratch_file(const std::string& content = "") : path_("/tmp/kestrel-test-XXXXXX") {
        const int file = mkstemp(path_.data());
        if (file < 0)
            std::abort();
        close(file);
        write(content);
    }
    ~scratch_file() { (void)unlink(path_.c_str()); }
    scratch_file(const scratch_file&) = delete;
    scratch_file& operator=(const scratch_file&) = delete;

    char* path() { return path_.data(); }

    void write(const std::string& content) { write_to(path_, content); }

    // Puts a new file in its place, as a careful operator does; never half a file.
    void replace(const std::string& content, time_t mtime) {
        const std::string next = path_ + ".new";
        write_to(next, content);
        set_mtime_of(next, mtime);
        if (std::rename(next.c_str(), path_.c_str()) != 0)
            std::abort();
    }

    void set_mtime(time_t seconds) { set_mtime_of(path_, seconds); }

    void remove() { (void)unlink(path_.c_str()); }

  private:
    static void write_to(const std::string& path, const std::string& content) {
        FILE* file = std::fopen(path.c_str(), "w");
        if (file == nullptr ||
            std::fwrite(content.data(), 1, content.size(), file) != content.size() ||
            std::fclose(file) != 0)
            std::abort();
    }

    static void set_mtime_of(const std::string& path, time_t seconds) {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
            std::abort();
    }

    std::string path_;
};

}  // namespace kestrel_test
