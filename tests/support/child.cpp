#include "tests/support/child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kestrel_test {

child_result run_in_child(const std::function<void()>& body) {
    int ends[2];
    if (pipe(ends) != 0)
        std::abort();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        alarm(60);
        body();
        _exit(0);
    }
    close(ends[1]);
    child_result result{};
    char piece[4096];
    ssize_t length;
    while ((length = read(ends[0], piece, sizeof piece)) > 0)
        result.errors.append(piece, static_cast<size_t>(length));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace kestrel_test
