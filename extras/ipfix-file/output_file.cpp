#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "file_name.h"

namespace ipfix_file {
namespace {

constexpr const char* unfinished = ".part";
constexpr uint32_t most_numbers = 1'000'000;  // of files with one name
constexpr mode_t mode = 0644;                 // less the umask

bool is_there(int directory, const std::string& name) {
    struct stat found;
    return fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0;
}

// Never replaces a file. Some file systems cannot promise that: there a look comes before it.
int rename_to_new(int directory, const std::string& from, const std::string& to) {
    if (renameat2(directory, from.c_str(), directory, to.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    if (is_there(directory, to))
        return EEXIST;
    return renameat(directory, from.c_str(), directory, to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

int output_file::open(const std::string& name) {
    is_lost_ = false;
    length_ = 0;
    if (name != std::exchange(name_, name))
        number_ = 0;
    current_name_ = name + unfinished;
    directory_descriptor_ = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int fault = directory_descriptor_ < 0 ? errno : find_place(name);
    if (fault != 0)
        close_all();
    return fault;
}

// A name is free when neither a complete file nor one on its way has it: the latter may be another
// probe's, or what a run left that was killed.
int output_file::find_place(const std::string& name) {
    for (; number_ < most_numbers; ++number_) {
        const std::string numbered = number_name(name, number_);
        if (is_there(directory_descriptor_, numbered))
            continue;
        current_name_ = numbered + unfinished;
        descriptor_ = openat(directory_descriptor_, current_name_.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (descriptor_ >= 0)
            return 0;
        if (errno != EEXIST)
            return errno;
    }
    return EEXIST;
}

int output_file::append(std::span<const uint8_t> message) {
    size_t written = 0;
    while (written < message.size()) {
        const ssize_t count =
            pwrite(descriptor_, message.data() + written, message.size() - written,
                   static_cast<off_t>(length_ + written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            const int fault = count < 0 ? errno : ENOSPC;
            if (written > 0)
                (void)cut_back(length_);  // where it fails, the file is lost
            return fault;
        }
        written += static_cast<size_t>(count);
    }
    length_ += message.size();
    return 0;
}

int output_file::sync() {
    struct stat found;
    if (fstat(descriptor_, &found) == 0 && found.st_nlink == 0) {
        is_lost_ = true;
        return ENOENT;
    }
    return fdatasync(descriptor_) == 0 ? 0 : errno;
}

int output_file::cut_back(uint64_t length) {
    if (ftruncate(descriptor_, static_cast<off_t>(length)) != 0) {
        is_lost_ = true;
        return errno;
    }
    length_ = length;
    return 0;
}

int output_file::complete() {
    const int fault = give_name();
    if (fault == 0)
        (void)fsync(directory_descriptor_);  // the bytes are safe; the name is as safe as it can be
    close_all();
    return fault;
}

int output_file::give_name() {
    for (; number_ < most_numbers; ++number_) {
        const std::string numbered = number_name(name_, number_);
        const int fault = rename_to_new(directory_descriptor_, current_name_, numbered);
        if (fault == EEXIST)
            continue;
        if (fault == 0)
            current_name_ = numbered;
        return fault;
    }
    return EEXIST;
}

void output_file::remove() {
    (void)unlinkat(directory_descriptor_, current_name_.c_str(), 0);  // it may be gone
    close_all();
}

void output_file::close_all() {
    for (int* descriptor : {&descriptor_, &directory_descriptor_})
        if (*descriptor >= 0)
            (void)close(std::exchange(*descriptor, -1));
}

}  // namespace ipfix_file
