// Line-oriented configuration files; see config_file.h. A file that is not there is reported by
// each caller in words of its own, one that cannot be read to its end is reported here.
#include "base/config_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "kestrelexp/service.h"

namespace kestrel {
namespace {

constexpr size_t piece_limit = 16383;  // bytes; a longer line arrives in pieces, each like a line
constexpr size_t shortest_line = 3;

// Hands out a file in pieces: up to and with a line end, or as much of a longer line as a piece
// takes. Stops for good at the end of the file, at a fault and at a limit.
class piece_reader {
  public:
    explicit piece_reader(const char* path)
        : path_(path), file_(open(path, O_RDONLY | O_CLOEXEC)) {}
    ~piece_reader() {
        if (is_open())
            (void)close(file_);  // it was only read
    }
    piece_reader(const piece_reader&) = delete;
    piece_reader& operator=(const piece_reader&) = delete;

    bool is_open() const { return file_ >= 0; }
    bool has_failed() const { return has_failed_; }

    // The next piece, closed by a NUL and good until the next call; null when there is none.
    char* next() {
        size_t length = 0;
        bool is_line_end = false;
        while (!is_line_end && length < piece_limit && (begin_ < end_ || fill_block())) {
            const char* const first = block_ + begin_;
            const size_t room = std::min(end_ - begin_, piece_limit - length);
            const auto* const last = static_cast<const char*>(std::memchr(first, '\n', room));
            is_line_end = last != nullptr;
            const size_t taken = is_line_end ? static_cast<size_t>(last - first) + 1 : room;
            std::memcpy(piece_ + length, first, taken);
            length += taken;
            begin_ += taken;
        }
        piece_[length] = '\0';
        line_length_ += length;
        if (line_length_ > config_line_limit)
            fail("a line of more than " + mebibytes(config_line_limit));
        if (is_line_end)
            line_length_ = 0;
        return length > 0 && !has_failed_ ? piece_ : nullptr;
    }

  private:
    static std::string mebibytes(size_t bytes) { return std::to_string(bytes >> 20) + " MiB"; }

    bool fill_block() {
        ssize_t count;
        do
            count = read(file_, block_, sizeof block_);
        while (count < 0 && errno == EINTR);
        if (count < 0)
            fail(std::strerror(errno));
        if (count <= 0)
            return false;
        begin_ = 0;
        end_ = static_cast<size_t>(count);
        file_length_ += end_;
        if (file_length_ > config_file_limit)
            fail("more than " + mebibytes(config_file_limit));
        return !has_failed_;
    }

    void fail(const std::string& reason) {
        verbose_msg(-1, "Unable to read %s: %s", path_, reason.c_str());
        has_failed_ = true;
    }

    const char* path_;
    int file_;
    bool has_failed_ = false;
    size_t line_length_ = 0;  // bytes of the line so far
    size_t file_length_ = 0;  // bytes read
    size_t begin_ = 0;        // of what is left of the block
    size_t end_ = 0;
    char block_[65536];
    char piece_[piece_limit + 1];
};

void drop_line_end(char* line, size_t* length) {
    if (*length > 0 && (line[*length - 1] == '\n' || line[*length - 1] == '\r'))
        line[--*length] = '\0';
}

config_lines close_array(std::vector<heap_text>& lines) {
    config_lines result(static_cast<char**>(malloc_wrapper((lines.size() + 1) * sizeof(char*), 0)));
    for (size_t i = 0; i < lines.size(); ++i)
        result[i] = lines[i].release();
    return result;
}

}  // namespace

config_file read_config_file(const char* path) {
    piece_reader file(path);
    if (!file.is_open())
        return {config_outcome::not_opened, nullptr};
    std::vector<heap_text> lines;
    while (char* const line = file.next()) {
        size_t length = std::strlen(line);  // a NUL ends a line
        drop_line_end(line, &length);
        drop_line_end(line, &length);
        // A '#' discards its whole line wherever it stands: a value can never carry a comment.
        if (length >= shortest_line && !std::strchr(line, '#'))
            lines.push_back(heap_copy(line, length));
    }
    if (file.has_failed())
        return {config_outcome::unreadable, nullptr};
    return {config_outcome::read, close_array(lines)};
}

}  // namespace kestrel

char** read_config(const char* path) {
    return kestrel::read_config_file(path).lines.release();
}
