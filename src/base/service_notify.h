// What the program tells the service manager that has started it: datagrams of assignments to the
// socket that it names in the environment, as sd_notify(3) describes. Without such a socket nothing
// is sent.
#pragma once

#include <cstdint>

namespace kestrel {

// Takes the manager's wishes out of the environment, where neither plugins nor children are to find
// them. Main thread, before a plugin is loaded and before a fork.
void service_notify_start();

// Sends an assignment, or several in lines. Any thread, also in a signal handler; never waits.
// Returns false when the manager has no room for it: it is lost, and may be sent again.
bool service_notify(const char* assignments);

// How often the manager wants a sign of life, at least (ns); 0: it does not.
uint64_t service_watchdog_ns();

}  // namespace kestrel
