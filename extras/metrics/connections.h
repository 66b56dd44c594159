// The open connections of the server, so that one that takes too long over a request can be cut
// off. The library's own time limit is one of silence; who sends or reads a byte now and then
// passes it.
#pragma once

#include <chrono>
#include <mutex>
#include <vector>

namespace metrics {

class connection_list {
  public:
    using clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds longest_request{30};

    // HTTP thread. A descriptor stays in the list until just before it is closed.
    void open(int descriptor, clock::time_point now);
    void close(int descriptor);
    // A request was answered in full; the next one has time from now on.
    void restart(int descriptor, clock::time_point now);

    // Any thread: ends the connections whose request takes longer. The library then closes them.
    void cut_off(clock::time_point now);

  private:
    struct connection {
        int descriptor;
        clock::time_point since;
        bool is_cut_off;
    };
    std::mutex lock_;
    std::vector<connection> connections_;
};

}  // namespace metrics
