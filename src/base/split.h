// A parameter text cut into pieces on a copy of its own; see char_split in service.h. Any thread.
#pragma once

#include <cstddef>
#include <cstdlib>

#include "kestrelexp/service.h"

namespace kestrel {

class split {
  public:
    // text is left as it is; null makes no pieces. Empty pieces are dropped.
    split(const char* text, char separator)
        : pieces_(char_split(const_cast<char*>(text), separator, 1)) {  // copied, so not written
        while (pieces_[size_] != nullptr)
            ++size_;
    }
    ~split() {
        std::free(pieces_[0]);
        std::free(pieces_);
    }
    split(const split&) = delete;
    split& operator=(const split&) = delete;

    size_t size() const { return size_; }
    const char* operator[](size_t i) const { return pieces_[i]; }
    // The i-th piece, null after the last one.
    const char* at(size_t i) const { return i < size_ ? pieces_[i] : nullptr; }
    const char* const* begin() const { return pieces_; }
    const char* const* end() const { return pieces_ + size_; }

  private:
    char** pieces_;
    size_t size_ = 0;
};

}  // namespace kestrel
