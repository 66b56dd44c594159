// The thread that looks once a second: it keeps the past of the charts and the traffic of the last
// minute. Others ask for them under a lock that the record loop never takes.
#pragma once

#include <functional>
#include <mutex>

#include "history.h"
#include "traffic.h"

namespace metrics {

class sampler {
  public:
    explicit sampler(uint64_t seed) : meter_(seed) {}

    // Record loop only.
    traffic_meter& meter() { return meter_; }

    // The body of the thread; never returns. also: called once a second, beside the look.
    [[noreturn]] void run(const std::function<void()>& also);

    // One look. time: s since the epoch; seconds: since the last one.
    void sample(double time, double seconds);

    // Calls use(history, top_of_minute) under the lock.
    template <typename Use>
    void look(const Use& use) {
        const std::lock_guard guard(lock_);
        use(history_, minute_.top());
    }

  private:
    traffic_meter meter_;
    std::mutex lock_;  // of what follows
    history history_;
    traffic_minute minute_;
};

}  // namespace metrics
