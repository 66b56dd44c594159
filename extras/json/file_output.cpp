// Files; see file_output.h.
#include "file_output.h"

#include <fcntl.h>
#include <kestrelexp/service.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "file_names.h"
#include "leftovers.h"

namespace json_export {
namespace {

constexpr uint64_t ns_per_second = 1'000'000'000;
constexpr uint64_t ns_per_ms = 1'000'000;
constexpr uint64_t retry_ns = ns_per_second;
// A message that is still on its way belongs to the file whose time is over.
constexpr uint64_t grace_s = 2;
constexpr uint64_t look_ns = ns_per_second;
constexpr mode_t file_mode = 0644;

// The machine's, in a replay as well.
uint64_t uptime_ns() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // fails for no clock that there is
    return static_cast<uint64_t>(now.tv_sec) * ns_per_second + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

outlet_owner file_output::owner() {
    return {this,
            [](void* self, outlet*, int32_t is_closing, outlet_wait* wait) -> int32_t {
                return static_cast<file_output*>(self)->tend(is_closing != 0, *wait) ? 1 : 0;
            },
            [](void* self, outlet*, outlet_message* message) -> int32_t {
                return static_cast<file_output*>(self)->deliver(*message);
            },
            [](void* self, outlet*) { static_cast<file_output*>(self)->end(); }};
}

void file_output::say_fault(const std::string& path, int error) {
    account_.set_up(false);
    if (!is_fault_said_)
        verbose_msg(-1, "json: %s: %s, trying again", path.c_str(), strerrordesc_np(error));
    is_fault_said_ = true;
}

void file_output::pause() {
    retry_ns_ = uptime_ns() + retry_ns;
}

std::string file_output::path_of(uint32_t number) const {
    return numbered(name_, number, suffix_)
        .append(settings_.is_aside() ? aside_suffix : std::string_view());
}

file_output::opening file_output::open_path(const std::string& path) {
    descriptor_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, file_mode);
    if (descriptor_ < 0) {
        say_fault(path, errno);
        return opening::failed;
    }
    // Two exports that cut and append would spoil each other's lines.
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        say_fault(path, errno);
        (void)close(descriptor_);  // nothing was written
        descriptor_ = -1;
        return opening::failed;
    }
    const auto whole = cut_partial(descriptor_, path, settings_.packing, settings_.longest_message);
    if (!whole) {
        (void)close(descriptor_);  // nothing was written
        descriptor_ = -1;
        return opening::left_alone;
    }
    size_ = *whole;
    path_ = path;
    if (is_fault_said_)
        verbose_msg(0, "json: %s is written", path.c_str());
    is_fault_said_ = false;
    account_.set_up(true);
    return opening::done;
}

bool file_output::open(uint64_t time_s) {
    time_s = std::max(time_s, began_s_);
    if (settings_.rotate_s != 0)
        time_s -= time_s % settings_.rotate_s;
    const std::string name = name_at(settings_.pattern, suffix_, time_s);
    if (name != name_)
        left_alone_ = 0;
    name_ = name;
    if (const int error = make_directories(path_of(0)); error != 0)
        say_fault(path_of(0), error);
    opening result = open_path(path_of(left_alone_));
    while (result == opening::left_alone)
        result = open_path(path_of(++left_alone_));
    if (result == opening::failed) {
        pause();
        return false;
    }
    end_s_ = settings_.rotate_s != 0 ? time_s + settings_.rotate_s : UINT64_MAX;
    return true;
}

void file_output::give_name() {
    if (name_ != last_name_)
        last_number_ = 0;
    last_name_ = name_;
    if (const int error = take_name(path_, name_, suffix_, last_number_); error != 0)
        say_fault(path_, error);
}

// The file gets its name, which says that nothing more comes. One into which nothing could be
// written has none.
void file_output::complete() {
    if (descriptor_ < 0)
        return;
    (void)fdatasync(descriptor_);  // who cannot have it on the disk has it in a file
    if (settings_.is_aside() && size_ > 0)
        give_name();
    else if (settings_.is_aside())
        (void)unlink(path_.c_str());  // if it cannot go, the next start finds it
    (void)close(descriptor_);         // with its lock; all was written
    descriptor_ = -1;
}

void file_output::take_up_what_was_left() {
    if (settings_.is_aside())
        for (const std::string& path : asides_of(settings_.pattern, suffix_))
            complete_leftover(path, settings_.packing, settings_.longest_message);
    else
        (void)open(timer_get_sec());
    account_.set_up(settings_.is_aside() || descriptor_ >= 0);
}

// Whoever moves a file that is appended to away gets a new one.
void file_output::reopen_when_moved() {
    const uint64_t now_ns = uptime_ns();
    if (settings_.is_aside() || descriptor_ < 0 || now_ns < looked_ns_ + look_ns)
        return;
    looked_ns_ = now_ns;
    struct stat open_file, named_file;
    if (fstat(descriptor_, &open_file) == 0 && stat(path_.c_str(), &named_file) == 0 &&
        open_file.st_ino == named_file.st_ino && open_file.st_dev == named_file.st_dev)
        return;
    (void)close(descriptor_);  // all was written
    descriptor_ = -1;
    account_.add_reconnect();
    (void)open(timer_get_sec());
}

bool file_output::tend(bool, outlet_wait& wait) {
    const uint64_t now_ns = uptime_ns();
    if (!has_begun_)
        take_up_what_was_left();
    has_begun_ = true;
    reopen_when_moved();
    if (now_ns < retry_ns_) {
        wait.timeout_ms = static_cast<int32_t>((retry_ns_ - now_ns) / ns_per_ms + 1);
        return false;
    }
    if (descriptor_ < 0 || end_s_ == UINT64_MAX)
        return true;
    const bool is_quiet = now_ns >= delivered_ns_ + grace_s * ns_per_second;
    if (is_quiet && timer_get_sec() >= end_s_ + grace_s) {
        complete();
        began_s_ = end_s_;  // what comes late goes into the next one
        return true;
    }
    wait.timeout_ms = 1000;
    return true;
}

// Whether a message is so much earlier than the last file that the clock has been set back: a
// period before it and more.
bool file_output::is_set_back(uint64_t time_s) const {
    return settings_.rotate_s != 0 && time_s + 2 * settings_.rotate_s < end_s_;
}

// Whether a message is for the next file.
bool file_output::is_due(uint64_t time_s, size_t bytes) const {
    return time_s >= end_s_ || is_set_back(time_s) ||
           (settings_.rotate_bytes != 0 && size_ > 0 && size_ + bytes > settings_.rotate_bytes);
}

// All of it or, cut back, nothing.
bool file_output::write_all(std::span<const uint8_t> bytes) {
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t result = write(descriptor_, bytes.data() + written, bytes.size() - written);
        if (result < 0 && errno == EINTR)
            continue;
        if (result <= 0) {
            const int error = result < 0 ? errno : ENOSPC;
            if (ftruncate(descriptor_, static_cast<off_t>(size_)) != 0)
                say_fault(path_, errno);
            say_fault(path_, error);
            return false;
        }
        written += static_cast<size_t>(result);
    }
    size_ += bytes.size();
    return true;
}

outlet_answer file_output::deliver(const outlet_message& message) {
    const uint64_t time_s = message.number / ns_per_second;
    const auto bytes =
        packer_.pack({static_cast<const uint8_t*>(message.data), size_t{message.length}});
    if (bytes.empty())
        return OUTLET_REFUSE;
    if (is_set_back(time_s))
        began_s_ = 0;
    if (descriptor_ >= 0 && is_due(time_s, bytes.size()))
        complete();
    if (descriptor_ < 0 && !open(time_s))
        return OUTLET_LATER;
    if (!write_all(bytes)) {
        pause();
        return OUTLET_LATER;
    }
    if (is_fault_said_) {
        verbose_msg(0, "json: %s is written", path_.c_str());
        is_fault_said_ = false;
        account_.set_up(true);
    }
    delivered_ns_ = uptime_ns();
    account_.note_success();
    return OUTLET_DONE;
}

void file_output::end() {
    complete();
}

}  // namespace json_export
