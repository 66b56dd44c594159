// The process as the system sees it: background, CPUs, user. Main thread, while the program starts
// and before it is known to other threads; the record loop never comes here.
#pragma once

#include <cstdint>

namespace kestrel {

// Opens /dev/null onto descriptors 0, 1 and 2 where they are closed. Otherwise the next pipe of a
// ring, or a collector's socket, would become standard error, and each message would end up in it.
// Ends the program with status 255 when there is no /dev/null to open.
void keep_standard_descriptors();

// Goes on in a child process detached from the terminal, with messages in syslog and /dev/null
// as descriptors 0, 1 and 2; the parent ends.
void daemonize();

// Binds the process to CPUs 0 to 31 by the bits of mask. A mask of 0 or one that the system
// refuses ends the program with status 255.
void set_cpu_affinity(uint32_t mask);

// Gives up root for the named user. Does nothing when there is no such user or the process is not
// root; ends the program with status 255 when the user's groups cannot be set.
void drop_privileges(const char* user);

}  // namespace kestrel
