// What has to go on while everything else may be held up: asking the input what it did not deliver,
// showing how full the rings are, the line of statistics when the remover waits, a word about what
// was lost, and telling the service manager that the program lives. A thread of its own that wakes
// four times a second and waits for nobody.
#pragma once

#include "engine/switch.h"

namespace kestrel {

// Starts the thread. The switch (of the first lane) is borrowed for the rest of the run. Ends the
// program when it cannot.
void start_housekeeper(flow_switch& sw);

}  // namespace kestrel
