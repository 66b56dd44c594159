// The signals that the program handles: on the main thread, by signal_handler
// (kestrelexp/program.h).
#pragma once

#include <signal.h>

namespace kestrel {

inline constexpr int interrupt_signals[] = {SIGINT, SIGQUIT, SIGTERM};
inline constexpr int handled_signals[] = {SIGINT, SIGQUIT, SIGTERM, SIGALRM};
// Who writes is told by an error as well: a reader is gone, a file is as large as it may be.
inline constexpr int ignored_signals[] = {SIGPIPE, SIGXFSZ};

inline sigset_t handled_signal_set() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : handled_signals)
        sigaddset(&set, signal);
    return set;
}

}  // namespace kestrel
