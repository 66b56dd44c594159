// AS tables from their text form. Record loop thread, at start-up and when the file has changed.
#pragma once

#include "plugins/as_table.h"

namespace kestrel {

enum class as_file { not_opened, faulty, loaded };

// Reads lines "ASN-ADDRESS/PREFIX" into sorted tables. Reports a faulty line and a file that cannot
// be read to its end, and says nothing of one that cannot be opened; tables hold nothing of use
// then.
as_file read_as_tables(const char* path, as_tables& tables);

}  // namespace kestrel
