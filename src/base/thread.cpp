// Starts the program's worker threads; see thread.h. Runs on the thread that calls it, holds no
// state, and never ends a thread.
#include "base/thread.h"

#include <pthread.h>
#include <signal.h>

#include "base/handled_signals.h"

namespace kestrel {

bool start_thread(void* (*body)(void*), void* argument) {
    const sigset_t handled = handled_signal_set();
    sigset_t before;
    // A thread inherits the mask of its maker, so the signals never reach it, not even at birth.
    if (pthread_sigmask(SIG_BLOCK, &handled, &before) != 0)
        return false;
    pthread_attr_t detached;
    pthread_t thread;
    const bool is_started = pthread_attr_init(&detached) == 0 &&
                            pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED) == 0 &&
                            pthread_create(&thread, &detached, body, argument) == 0;
    (void)pthread_attr_destroy(&detached);                 // holds nothing on Linux
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);  // fails only for a bad first argument
    return is_started;
}

}  // namespace kestrel
