// The message functions, their level gates, and the way out after a start-up fault. Any thread and
// the signal handler call in here, so a line is put together first and then leaves with one
// write(2); no lock of ours is ever taken.
#include "base/log.h"

#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/handled_signals.h"

int32_t verbose_level = -1;
int32_t debug_level = -1;
int32_t syslog_on = 0;
// Nothing here sets it: every syslog message opens the log again first, so a changed app_name
// holds from the next message on.
int32_t started = 0;
const char* app_name = nullptr;
const char* progname = nullptr;

namespace kestrel {
namespace {

// A message may be written between a failing call and the look at its errno.
class errno_keeper {
  public:
    ~errno_keeper() { errno = saved_; }

  private:
    const int saved_ = errno;
};

// One line of text. It stays in its own bytes while it is short (all that the signal handler says
// is); a long one moves to the heap, and is cut only when there is no memory for it.
class text_line {
  public:
    text_line() = default;
    text_line(const text_line&) = delete;
    text_line& operator=(const text_line&) = delete;
    ~text_line() { std::free(heap_); }

    __attribute__((format(printf, 2, 3))) void append(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        append_list(format, arguments);
        va_end(arguments);
    }

    __attribute__((format(printf, 2, 0))) void append_list(const char* format, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(text_ + used_, capacity_ - used_, format, arguments);
        if (length > 0) {
            const size_t needed = used_ + static_cast<size_t>(length) + 1;
            if (needed > capacity_ && grow(needed))
                std::vsnprintf(text_ + used_, capacity_ - used_, format, again);
            used_ = needed > capacity_ ? capacity_ - 1 : needed - 1;
        }
        va_end(again);
    }

    // Ends the line and sends it to standard error.
    void write_out() {
        text_[used_] = '\n';  // in place of the closing NUL
        for (size_t sent = 0; sent <= used_;) {
            const ssize_t result = ::write(STDERR_FILENO, text_ + sent, used_ + 1 - sent);
            if (result >= 0)
                sent += static_cast<size_t>(result);
            else if (errno != EINTR)
                return;  // nobody is left to tell
        }
    }

  private:
    bool grow(size_t needed) {
        char* bigger = static_cast<char*>(std::malloc(needed));
        if (!bigger)
            return false;
        std::memcpy(bigger, text_, used_);
        std::free(heap_);
        text_ = heap_ = bigger;
        capacity_ = needed;
        return true;
    }

    char fixed_[1024];
    char* heap_ = nullptr;
    char* text_ = fixed_;
    size_t capacity_ = sizeof fixed_;
    size_t used_ = 0;
};

// syslog() holds a lock that the signal handler's own message would wait for, so the handler's
// signals stay out while a message is under way.
class handler_signals_blocked {
  public:
    handler_signals_blocked() {
        const sigset_t handled = handled_signal_set();
        (void)pthread_sigmask(SIG_BLOCK, &handled, &before_);  // fails for a bad "how" only
    }
    ~handler_signals_blocked() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    handler_signals_blocked(const handler_signals_blocked&) = delete;
    handler_signals_blocked& operator=(const handler_signals_blocked&) = delete;

  private:
    sigset_t before_;
};

// Only the flag selects syslog: a closed standard error does not by itself. The flag is written
// again by every message of any thread (see open_syslog), hence the atomic accesses; no other data
// hangs on it.
bool use_syslog() {
    return std::atomic_ref(syslog_on).load(std::memory_order_relaxed) != 0;
}

void open_syslog() {
    if (started != 0)
        return;
    openlog(app_name ? app_name : "app-not-set", 0, 0);
    std::atomic_ref(syslog_on).store(1, std::memory_order_relaxed);
}

constexpr size_t syslog_text_size = 2048;

__attribute__((format(printf, 2, 0))) void verbose_list(int level, const char* format,
                                                        va_list arguments) {
    if (verbose_level < level)
        return;
    const errno_keeper keeper;
    if (use_syslog()) {
        char text[syslog_text_size];
        std::vsnprintf(text, sizeof text, format, arguments);
        const handler_signals_blocked blocked;
        open_syslog();
        syslog(LOG_INFO, "(%u) %s", static_cast<unsigned>(getpid()), text);
        return;
    }
    text_line line;
    if (level >= 0)
        line.append("VERBOSE:%2i:", level);
    line.append_list(format, arguments);
    line.write_out();
}

__attribute__((format(printf, 4, 0))) void debug_list(int level, const char* where,
                                                      const char* what, const char* format,
                                                      va_list arguments) {
    if (debug_level < level)
        return;
    const errno_keeper keeper;
    if (use_syslog()) {
        char text[syslog_text_size];
        std::vsnprintf(text, sizeof text, format, arguments);
        const handler_signals_blocked blocked;
        open_syslog();
        syslog(LOG_DEBUG, "%s", where);
        syslog(LOG_DEBUG, "%s", text);
        return;
    }
    text_line line;
    line.append("DEBUG:%2i:,%s %s: ", level, where, what);
    line.append_list(format, arguments);
    line.write_out();
}

}  // namespace

void die(int status, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    verbose_list(-1, format, arguments);
    va_end(arguments);
    std::exit(status);
}

}  // namespace kestrel

void verbose_msg(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    kestrel::verbose_list(level, format, arguments);
    va_end(arguments);
}

void debug_msg(int level, const char* where, const char* what, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    kestrel::debug_list(level, where, what, format, arguments);
    va_end(arguments);
}
