// The only place that knows where the tree lies: to compiler caches a definition with a path makes
// another compilation.
#include "tests/support/source_tree.h"

std::string kestrel_test::in_source_tree(const std::string& file) {
    return KESTREL_SOURCE_DIR "/" + file;
}
