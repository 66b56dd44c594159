// Files of the source tree that tests read.
#pragma once

#include <string>

namespace kestrel_test {

// The path of a file, which is given as seen from the root of the tree.
std::string in_source_tree(const std::string& file);

}  // namespace kestrel_test
