// Runs an input in a copy of the process, for code that ends the program where its input is at
// fault. The copy's coverage comes home with its status, so a fuzzer sees what the input did.
#pragma once

#include <functional>

namespace kestrel_fuzz {

// Returns the status that the copy ended with: its exit(), or 0 after the body. A signal, a
// sanitizer's finding and a copy that takes longer than 20 s are failures of the input.
int run_in_copy(const std::function<void()>& body);

}  // namespace kestrel_fuzz
