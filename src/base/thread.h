// Starts the program's worker threads. Signals that the program handles are left to the main
// thread: a worker is born with them blocked. Called on the main thread while the program starts;
// never joins, never ends a thread.
#pragma once

namespace kestrel {

// Runs body(argument) on a new detached thread with the handled signals blocked. Returns whether
// the thread was started; the caller's own signal mask is unchanged.
bool start_thread(void* (*body)(void*), void* argument);

}  // namespace kestrel
