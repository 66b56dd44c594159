#include "mapped_file.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace capture_file {
namespace {

constexpr size_t page_bytes = 4096;
constexpr size_t window_bytes = size_t{2} * 1024 * 1024;
// What a batch of frames may reach over, so that it finds its pages ready.
constexpr size_t margin_bytes = size_t{64} * 1024;

// What the handler knows. begin and end are written before it is there; lost by the handler, on
// whatever thread, and read by the reader, with order: a zero that was read came after it.
uintptr_t watched_begin;
uintptr_t watched_end;
std::atomic<uintptr_t> lost_begin = UINTPTR_MAX;
struct sigaction former_action;

static_assert(std::atomic<uintptr_t>::is_always_lock_free);

void note_loss(uintptr_t page) {
    uintptr_t known = lost_begin.load();
    while (page < known && !lost_begin.compare_exchange_weak(known, page)) {
    }
}

// Zeros from this page to the end of the mapping: nothing after a lost page is of any use. A plain
// system call, as it is made in a signal handler.
bool replace_pages(uintptr_t page) {
    const int fault = errno;  // of whom the signal came upon
    const long result = syscall(SYS_mmap, page, watched_end - page, PROT_READ,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    errno = fault;
    return result == static_cast<long>(page);
}

// A SIGBUS that is none of ours. A handler from before is called; without one the signal comes
// again, to end the process as it would have: from the instruction that is repeated, or sent.
void pass_on(int number, siginfo_t* information, void* context) {
    if ((former_action.sa_flags & SA_SIGINFO) != 0) {
        former_action.sa_sigaction(number, information, context);
        return;
    }
    if (former_action.sa_handler != SIG_DFL && former_action.sa_handler != SIG_IGN) {
        former_action.sa_handler(number);
        return;
    }
    const bool is_sent = information->si_code <= 0;
    if (is_sent && former_action.sa_handler == SIG_IGN)
        return;
    struct sigaction plain {};
    plain.sa_handler = SIG_DFL;
    (void)sigaction(SIGBUS, &plain, nullptr);
    if (is_sent)
        (void)raise(SIGBUS);
}

void on_bus_error(int number, siginfo_t* information, void* context) {
    const auto address = reinterpret_cast<uintptr_t>(information->si_addr);
    if (information->si_code == BUS_ADRERR && address >= watched_begin && address < watched_end) {
        const uintptr_t page = address & ~(page_bytes - 1);
        note_loss(page);
        if (replace_pages(page))
            return;
    }
    pass_on(number, information, context);
}

void watch(const mapped_file& file) {
    watched_begin = reinterpret_cast<uintptr_t>(file.data);
    watched_end = watched_begin + (file.size + page_bytes - 1) / page_bytes * page_bytes;
    struct sigaction action {};
    action.sa_sigaction = on_bus_error;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    (void)sigemptyset(&action.sa_mask);
    (void)sigaction(SIGBUS, &action, &former_action);  // fails for wrong arguments alone
}

void* address_of(const mapped_file& file, size_t at) {
    return const_cast<uint8_t*>(file.data) + at;
}

}  // namespace

bool map_file(int descriptor, size_t least_size, mapped_file& file) {
    struct stat status {};
    if (watched_end != 0 || fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<size_t>(status.st_size) < least_size)
        return false;
    const auto size = static_cast<size_t>(status.st_size);
    void* const data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    if (data == MAP_FAILED)
        return false;
    file = {descriptor, static_cast<const uint8_t*>(data), size, 0, 0};
    watch(file);
    return true;
}

void unmap_file(mapped_file& file) {
    if (file.data == nullptr)
        return;
    (void)munmap(address_of(file, 0), file.size);  // it is what was mapped
    (void)sigaction(SIGBUS, &former_action, nullptr);
    watched_begin = watched_end = 0;
    lost_begin.store(UINTPTR_MAX);
    file = {};
}

// A kernel that does not know this advice gives the pages one by one.
size_t mapping_advance(mapped_file& file, size_t at) {
    const size_t past = at & ~(page_bytes - 1);
    if (past > file.let_go)
        (void)madvise(address_of(file, file.let_go), past - file.let_go, MADV_DONTNEED);
    file.let_go = past;
    file.ready_end = std::max(file.ready_end, past);
    const size_t length = std::min(window_bytes, file.size - file.ready_end);
    (void)madvise(address_of(file, file.ready_end), length, MADV_POPULATE_READ);
    file.ready_end += length;
    return file.ready_end == file.size ? SIZE_MAX : file.ready_end - margin_bytes;
}

bool mapping_has(const mapped_file& file, size_t end) {
    if (reinterpret_cast<uintptr_t>(file.data) + end > lost_begin.load())
        return false;
    struct stat status {};
    return fstat(file.descriptor, &status) == 0 && static_cast<size_t>(status.st_size) >= end;
}

bool mapping_was_cut(const mapped_file& file) {
    struct stat status {};
    return fstat(file.descriptor, &status) == 0 && static_cast<size_t>(status.st_size) < file.size;
}

}  // namespace capture_file
