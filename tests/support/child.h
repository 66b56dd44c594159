// Runs a piece of a test in a process of its own: for code that starts threads which never end, and
// for what a process writes to standard error while it lives.
#pragma once

#include <functional>
#include <string>

namespace kestrel_test {

struct child_result {
    int status;          // exit status, or 128 + the signal that ended the child
    std::string errors;  // all that it wrote to standard error
};

// The child ends with status 0 after body, without destructors; SIGALRM ends it after a minute.
child_result run_in_child(const std::function<void()>& body);

}  // namespace kestrel_test
