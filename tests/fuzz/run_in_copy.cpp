#include "tests/fuzz/run_in_copy.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "tests/fuzz/fuzz_target.h"

// The counters that clang puts into a fuzzed program, one for each edge; other builds have none.
// (This file has none of its own either: clang refers to them by the same names, and would take
// ours for others.)
extern "C" __attribute__((weak)) uint8_t __start___sancov_cntrs[];
extern "C" __attribute__((weak)) uint8_t __stop___sancov_cntrs[];

namespace kestrel_fuzz {
namespace {

constexpr unsigned seconds_to_run = 20;

size_t counter_count() {
    return static_cast<size_t>(__stop___sancov_cntrs - __start___sancov_cntrs);
}

// Memory of both processes: whether the copy came to its end, then its counters.
uint8_t* shared_memory() {
    static auto* const memory = static_cast<uint8_t*>(mmap(
        nullptr, 1 + counter_count(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (memory == MAP_FAILED)
        fail("no shared memory");
    return memory;
}

// The first of the copy's exit handlers, and the last: those of the fuzzer take any exit for a
// crash, and those of the sanitizers look for leaks, of which a program that ends owes no account.
void leave(int status, void*) {
    uint8_t* const memory = shared_memory();
    memory[0] = 1;
    if (counter_count() != 0)
        std::memcpy(memory + 1, __start___sancov_cntrs, counter_count());
    _exit(status);
}

[[noreturn]] void live(const std::function<void()>& body) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGALRM, SIG_DFL);
    alarm(seconds_to_run);
    if (on_exit(leave, nullptr) != 0)
        fail("no exit handler");
    body();
    std::exit(0);
}

}  // namespace

int run_in_copy(const std::function<void()>& body) {
    uint8_t* const memory = shared_memory();
    memory[0] = 0;
    const pid_t child = fork();
    if (child == 0)
        live(body);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        fail("no process");
    if (!WIFEXITED(status) || memory[0] == 0)
        fail("the input brought the program down");
    if (counter_count() != 0)
        std::memcpy(__start___sancov_cntrs, memory + 1, counter_count());
    return WEXITSTATUS(status);
}

}  // namespace kestrel_fuzz
