// Starts the program's worker threads; see thread.h. Runs on the thread that calls it, holds no
// state, and never ends a thread.
#include "core/utils/thread.h"

#include <pthread.h>
#include <signal.h>

#include <initializer_list>

namespace kestrel {

bool start_thread(void* (*body)(void*), void* argument) {
    sigset_t handled;
    sigset_t before;
    sigemptyset(&handled);
    for (int signal : {SIGINT, SIGQUIT, SIGALRM})
        sigaddset(&handled, signal);

    // A thread inherits the mask of its maker, so the signals never reach it, not even at birth.
    if (pthread_sigmask(SIG_BLOCK, &handled, &before) != 0)
        return false;
    pthread_t thread;
    const bool is_started = pthread_create(&thread, nullptr, body, argument) == 0;
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);  // fails only for a bad first argument
    if (is_started)
        (void)pthread_detach(thread);  // fails only for a thread that is detached already
    return is_started;
}

}  // namespace kestrel
