// For tests: a disk that is full. Files of this process cannot grow beyond a size, so that a write
// across it is a short one.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace kestrel_test {

class size_limit {
  public:
    explicit size_limit(rlim_t bytes) : signal_(std::signal(SIGXFSZ, SIG_IGN)) {
        (void)getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {bytes, before_.rlim_max};
        (void)setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~size_limit() {
        (void)setrlimit(RLIMIT_FSIZE, &before_);
        (void)std::signal(SIGXFSZ, signal_);
    }
    size_limit(const size_limit&) = delete;
    size_limit& operator=(const size_limit&) = delete;

  private:
    rlimit before_ = {};
    void (*signal_)(int);
};

}  // namespace kestrel_test
