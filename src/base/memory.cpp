// The start-up allocators. What they hand out is zeroed and lives for the whole run; memory that
// cannot be had ends the process here, so no caller ever sees a null pointer.
#include "base/memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/log.h"

namespace kestrel {
namespace {

constexpr size_t cache_alignment = 128;  // a pair of cache lines, as adjacent-line prefetch has it
constexpr size_t huge_page = 0x200000;
constexpr size_t huge_page_threshold = 2 * huge_page;

void* aligned_block(size_t size) {
    // A block worth huge pages starts on one; that is more than the 128 bytes promised.
    const bool big = size >= huge_page_threshold;
    void* block = nullptr;
    if (posix_memalign(&block, big ? huge_page : cache_alignment, size) != 0)
        out_of_memory("Posix memalign problem (malloc)", size);
    if (big && block) {
        // Before the first touch, or the small pages are there already. Only a wish: a kernel
        // without them serves small pages.
        (void)madvise(block, size / huge_page * huge_page, MADV_HUGEPAGE);
    }
    return block;
}

[[noreturn]] void huge_failure(size_t size) {
    std::perror("hugetlb mmap failed");
    die(exit_huge_memory, "Unable to get %zu bytes of memory", size);
}

int open_huge_file(const char* directory, const char* name) {
    const std::string path =
        std::string(directory) + "/" + std::to_string(getpid()) + "." + std::string(name);
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0755);
    if (file < 0) {
        std::perror("hugetlb open failed");
        std::exit(exit_huge_memory);
    }
    // At once, so that the memory goes with the process. Left there, the file would only be ugly.
    (void)unlink(path.c_str());
    return file;
}

// Pages that nobody had before are zero, so clearing them once more would take the time twice.
// They are taken now: memory that is not there is found out at the start.
void* fresh_pages(size_t size) {
    const size_t room = size <= PTRDIFF_MAX - huge_page ? size + huge_page : SIZE_MAX;
    void* const mapping =
        mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        out_of_memory("Posix memalign problem (malloc)", size);
    const size_t past_page = reinterpret_cast<uintptr_t>(mapping) % huge_page;
    void* const block = static_cast<char*>(mapping) + (huge_page - past_page) % huge_page;
    (void)madvise(block, size / huge_page * huge_page, MADV_HUGEPAGE);  // only a wish, as above
    if (madvise(block, size, MADV_POPULATE_WRITE) != 0) {
        if (errno != EINVAL)
            out_of_memory("Posix memalign problem (malloc)", size);
        std::memset(block, 0, size);  // a kernel before 5.14
    }
    return block;
}

}  // namespace

void out_of_memory(const char* message, size_t size) {
    verbose_msg(-1, "%s", message);
    die(exit_memory, "Unable to get %zu bytes of memory", size);
}

void* big_array(size_t bytes, const char* directory, const char* name) {
    if (directory)
        return malloc_huge(bytes, directory, name);
    return bytes >= huge_page_threshold ? fresh_pages(bytes) : malloc_wrapper(bytes, 1);
}

void install_memory_handler() {
    std::set_new_handler([] { die(exit_memory, "Malloc problem"); });
}

}  // namespace kestrel

using namespace kestrel;

void* malloc_wrapper(size_t size, int aligned) {
    if (size == 0)
        size = 1;  // so that a null pointer always means a fault
    void* block = aligned ? aligned_block(size) : std::malloc(size);
    if (!block)
        out_of_memory("Malloc problem", size);
    return std::memset(block, 0, size);
}

void* malloc_huge(size_t size, const char* directory, const char* name) {
    const int file = open_huge_file(directory, name);
    if (size > PTRDIFF_MAX - huge_page) {
        errno = ENOMEM;
        huge_failure(size);
    }
    const size_t rounded = (size + huge_page - 1) / huge_page * huge_page;
    // hugetlbfs grows a file by mapping it; the size makes any other file system serve as well.
    if (ftruncate(file, static_cast<off_t>(rounded)) != 0)
        huge_failure(size);
    void* block = mmap(nullptr, rounded, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (block == MAP_FAILED)
        huge_failure(size);
    // Takes the pages now: on a full file system the first touch would be a SIGBUS.
    if (fallocate(file, 0, 0, static_cast<off_t>(rounded)) != 0 && errno != EOPNOTSUPP)
        huge_failure(size);
    return std::memset(block, 0, rounded);
}
