// Requests to flush the flow cache, from signal handlers and plugins to the thread that ages it.
//
// queue_force_flush (kestrelexp/flow.h) is what plugins see of it: 1 while a flush is wanted or
// under way, else 0. Requests are counted beside it, so that one which comes while a flush is under
// way gets a flush of its own. Any thread; signal handlers too.
#pragma once

#include <cstdint>

namespace kestrel {

void request_flush();

// From a request on until a flush that began after it is done. When this has turned false, what the
// flush put into the final storage can be seen there.
bool is_flush_pending();

// For the thread that serves requests, around each flush. begin_flush returns what end_flush takes.
uint32_t begin_flush();
void end_flush(uint32_t begun);

}  // namespace kestrel
