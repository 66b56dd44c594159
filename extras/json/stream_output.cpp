// Streams; see stream_output.h.
#include "stream_output.h"

#include <fcntl.h>
#include <kestrelexp/service.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace json_export {
namespace {

constexpr uint64_t ns_per_second = 1'000'000'000;
constexpr uint64_t ns_per_ms = 1'000'000;
constexpr uint64_t retry_ns = ns_per_second;

// The machine's, in a replay as well.
uint64_t uptime_ns() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // fails for no clock that there is
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second + static_cast<uint64_t>(now.tv_nsec);
}

// Standard output, opened anew where it is a pipe: others that have it must not find it changed to
// one that does not block.
int open_standard(bool& is_socket) {
    struct stat status;
    if (fstat(STDOUT_FILENO, &status) != 0)
        return -1;
    is_socket = S_ISSOCK(status.st_mode);
    if (S_ISFIFO(status.st_mode)) {
        const int own = ::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (own >= 0)
            return own;
    }
    return STDOUT_FILENO;
}

int open_socket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy_n(path.c_str(), std::min(path.size() + 1, sizeof address.sun_path), address.sun_path);
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (made < 0)
        return -1;
    if (connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return made;
    const int error = errno;
    (void)close(made);  // nothing was written
    errno = error;
    return -1;
}

bool can_be_written(int descriptor) {
    pollfd wanted{descriptor, POLLOUT, 0};
    return poll(&wanted, 1, 0) != 0;  // or a fault, which the next attempt will tell of
}

// The start of the line that the byte at an offset belongs to.
uint64_t start_of_line(const outlet_message& message, uint64_t offset) {
    const auto* const text = static_cast<const char*>(message.data);
    while (offset > 0 && text[offset - 1] != '\n')
        --offset;
    return offset;
}

}  // namespace

outlet_owner stream_output::owner() {
    return {this,
            [](void* self, outlet*, int32_t is_closing, outlet_wait* wait) -> int32_t {
                return static_cast<stream_output*>(self)->tend(is_closing != 0, *wait) ? 1 : 0;
            },
            [](void* self, outlet*, outlet_message* message) -> int32_t {
                return static_cast<stream_output*>(self)->deliver(*message);
            },
            nullptr};
}

// unix(7) and pipe(7): a pipe takes PIPE_BUF as one; a socket takes what is one buffer of the
// kernel's as one.
size_t stream_output::whole_message(output_kind kind) {
    return kind == output_kind::socket ? size_t{16} * 1024 : PIPE_BUF;
}

bool stream_output::open() {
    is_socket_ = kind_ == output_kind::socket;
    descriptor_ = kind_ == output_kind::standard ? open_standard(is_socket_)
                  : kind_ == output_kind::socket
                      ? open_socket(path_)
                      : ::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    const int error = errno;
    retry_ns_ = uptime_ns() + retry_ns;  // a reader who goes at once is not met in a busy loop
    if (descriptor_ < 0) {
        say_broken(error);
        return false;
    }
    if (is_outage_said_ || has_been_open_)
        verbose_msg(0, "json: %s is read", path_.c_str());
    if (has_been_open_)
        account_.add_reconnect();
    has_been_open_ = true;
    is_outage_said_ = false;
    is_full_ = false;
    account_.set_up(true);
    return true;
}

void stream_output::say_broken(int error) {
    account_.set_up(false);
    if (!is_outage_said_ && is_failing_)
        verbose_msg(-1, "json: %s: %s, trying again", path_.c_str(), strerrordesc_np(error));
    else if (!is_outage_said_)
        verbose_msg(-1, "json: nobody reads %s (%s)%s", path_.c_str(), strerrordesc_np(error),
                    is_over_ ? "" : ", trying again");
    is_outage_said_ = true;
}

void stream_output::note_success() {
    if (is_failing_) {
        verbose_msg(0, "json: %s is written", path_.c_str());
        account_.set_up(true);
        is_outage_said_ = false;
        is_failing_ = false;
    }
    account_.note_success();
}

bool stream_output::tend(bool, outlet_wait& wait) {
    if (is_over_) {
        wait.timeout_ms = -1;
        return true;
    }
    if (descriptor_ < 0 || is_failing_) {
        const uint64_t now_ns = uptime_ns();
        if (now_ns < retry_ns_ || (descriptor_ < 0 && !open())) {
            wait.timeout_ms =
                static_cast<int32_t>(now_ns < retry_ns_ ? (retry_ns_ - now_ns) / ns_per_ms + 1 : 1);
            return false;
        }
    }
    if (is_full_ && !can_be_written(descriptor_)) {
        wait = {descriptor_, POLLOUT, -1};
        return false;
    }
    is_full_ = false;
    return true;
}

outlet_answer stream_output::follow_error(outlet_message& message, int error) {
    if (error == EINTR)
        return OUTLET_LATER;
    if (error == EAGAIN) {
        is_full_ = true;
        return OUTLET_LATER;
    }
    is_over_ = kind_ == output_kind::standard && error == EPIPE;
    is_failing_ = kind_ == output_kind::standard && !is_over_;
    say_broken(error);
    if (is_over_)
        return OUTLET_REFUSE;
    if (is_failing_) {
        retry_ns_ = uptime_ns() + retry_ns;
        return OUTLET_LATER;  // and goes on where it was
    }
    (void)close(descriptor_);  // what was written is the reader's
    descriptor_ = -1;
    message.mark = start_of_line(message, message.mark);
    return OUTLET_LATER;
}

// message.mark: bytes that were written.
outlet_answer stream_output::deliver(outlet_message& message) {
    if (is_over_)
        return OUTLET_REFUSE;
    if (descriptor_ < 0)
        return OUTLET_LATER;
    const auto* const from = static_cast<const char*>(message.data) + message.mark;
    const size_t length = message.length - message.mark;
    const ssize_t written = is_socket_
                                ? send(descriptor_, from, length, MSG_DONTWAIT | MSG_NOSIGNAL)
                                : write(descriptor_, from, length);
    if (written < 0)
        return follow_error(message, errno);
    message.mark += static_cast<uint64_t>(written);
    if (message.mark < message.length) {
        is_full_ = true;
        return OUTLET_LATER;
    }
    note_success();
    return OUTLET_DONE;
}

}  // namespace json_export
