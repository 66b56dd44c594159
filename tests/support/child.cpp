#include "tests/support/child.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kestrel_test {

std::string run_in_child(const std::function<void()>& body) {
    int ends[2];
    if (pipe(ends) != 0)
        std::abort();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        alarm(110);
        body();
        _exit(0);
    }
    close(ends[1]);
    std::string errors;
    char piece[4096];
    ssize_t length;
    while ((length = read(ends[0], piece, sizeof piece)) > 0)
        errors.append(piece, static_cast<size_t>(length));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status) << "\n" << errors;
    EXPECT_EQ(0, WEXITSTATUS(status)) << errors;
    return errors;
}

}  // namespace kestrel_test
