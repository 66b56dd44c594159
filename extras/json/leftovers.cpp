// Files that were left; see leftovers.h.
#include "leftovers.h"

#include <fcntl.h>
#include <kestrelexp/service.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <span>

#include "file_names.h"

namespace json_export {
namespace {

// Bytes of the file that are whole; all of it where it cannot be looked at, nothing where the rest
// is not what a crash leaves.
std::optional<uint64_t> whole_bytes(int descriptor, compression packing, uint64_t size,
                                    size_t longest_message) {
    void* const start = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
    if (start == MAP_FAILED)
        return size;
    const std::span data(static_cast<const uint8_t*>(start), size);
    const uint64_t whole = whole_length(packing, data);
    const bool is_torn = size - whole <= longest_member(packing, longest_message) &&
                         may_be_torn(packing, data.subspan(whole));
    (void)munmap(start, size);  // fails for no mapping of ours
    return is_torn ? std::optional(whole) : std::nullopt;
}

bool is_locked_by_us(int descriptor) {
    return flock(descriptor, LOCK_EX | LOCK_NB) == 0;
}

void give_name(const std::string& path, compression packing) {
    const std::string_view suffix = suffix_of(packing);
    const size_t length = path.size() - aside_suffix.size() - suffix.size();
    uint32_t number = 0;
    if (const int error = take_name(path, path.substr(0, length), suffix, number); error != 0)
        verbose_msg(-1, "json: %s: %s", path.c_str(), strerrordesc_np(error));
}

}  // namespace

std::optional<uint64_t> cut_partial(int descriptor, const std::string& path, compression packing,
                                    size_t longest_message) {
    struct stat status;
    if (fstat(descriptor, &status) != 0 || status.st_size <= 0)
        return 0;
    const auto size = static_cast<uint64_t>(status.st_size);
    const auto whole = whole_bytes(descriptor, packing, size, longest_message);
    if (!whole) {
        verbose_msg(-1, "json: %s has more than a torn line at its end: it is left alone",
                    path.c_str());
        return whole;
    }
    if (*whole == size)
        return size;
    if (ftruncate(descriptor, static_cast<off_t>(*whole)) != 0) {
        verbose_msg(-1, "json: %s: %s", path.c_str(), strerrordesc_np(errno));
        return size;
    }
    verbose_msg(0, "json: %s ended within a line: %lu bytes are cut", path.c_str(), size - *whole);
    return whole;
}

void complete_leftover(const std::string& path, compression packing, size_t longest_message) {
    const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0)
        return;
    if (is_locked_by_us(descriptor)) {
        const auto whole = cut_partial(descriptor, path, packing, longest_message);
        if (whole == uint64_t{0})
            (void)unlink(path.c_str());  // if it cannot go it stays for the next start
        else if (whole)
            give_name(path, packing);
    }
    (void)close(descriptor);  // with its lock
}

}  // namespace json_export
