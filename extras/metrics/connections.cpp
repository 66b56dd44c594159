#include "connections.h"

#include <sys/socket.h>

#include <algorithm>

namespace metrics {

void connection_list::open(int descriptor, clock::time_point now) {
    const std::lock_guard guard(lock_);
    connections_.push_back({descriptor, now, false});
}

void connection_list::close(int descriptor) {
    const std::lock_guard guard(lock_);
    std::erase_if(connections_,
                  [&](const connection& one) { return one.descriptor == descriptor; });
}

void connection_list::restart(int descriptor, clock::time_point now) {
    const std::lock_guard guard(lock_);
    for (connection& one : connections_)
        if (one.descriptor == descriptor)
            one.since = now;
}

void connection_list::cut_off(clock::time_point now) {
    const std::lock_guard guard(lock_);
    for (connection& one : connections_) {
        if (one.is_cut_off || now - one.since <= longest_request)
            continue;
        (void)shutdown(one.descriptor, SHUT_RDWR);  // it may have ended by itself
        one.is_cut_off = true;
    }
}

}  // namespace metrics
