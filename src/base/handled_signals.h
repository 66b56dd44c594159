// The signals that the program handles: on the main thread, by signal_handler
// (kestrelexp/program.h).
#pragma once

#include <signal.h>

namespace kestrel {

inline constexpr int interrupt_signals[] = {SIGINT, SIGQUIT, SIGTERM};
inline constexpr int handled_signals[] = {SIGINT, SIGQUIT, SIGTERM, SIGALRM};

inline sigset_t handled_signal_set() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : handled_signals)
        sigaddset(&set, signal);
    return set;
}

}  // namespace kestrel
