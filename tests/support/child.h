// Runs a piece of a test in a process of its own: for code that starts threads which never end, and
// for what a process writes to standard error while it lives.
#pragma once

#include <functional>
#include <string>

namespace kestrel_test {

// Returns all that the child wrote to standard error. The child ends with status 0 after body,
// without destructors; any other end (a signal, a sanitizer's finding, a minute gone by) is a
// failure of the test.
std::string run_in_child(const std::function<void()>& body);

}  // namespace kestrel_test
