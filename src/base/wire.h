// Bytes on the wire: big-endian loads and stores, and a bounded writer. No alignment is assumed.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace kestrel {

static_assert(std::endian::native == std::endian::little, "records are little-endian in memory");

template <typename T>
inline T load_native(const uint8_t* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <typename T>
inline void store_native(void* to, T value) {
    std::memcpy(to, &value, sizeof value);
}

inline uint16_t byte_swap(uint16_t value) {
    return __builtin_bswap16(value);
}
inline uint32_t byte_swap(uint32_t value) {
    return __builtin_bswap32(value);
}
inline uint64_t byte_swap(uint64_t value) {
    return __builtin_bswap64(value);
}

inline uint16_t load_be16(const uint8_t* from) {
    return byte_swap(load_native<uint16_t>(from));
}
inline uint32_t load_be32(const uint8_t* from) {
    return byte_swap(load_native<uint32_t>(from));
}

// Writes big-endian values one after the other into a fixed buffer. A value that does not fit is
// not written and marks the writer as overrun; nothing is ever written outside the buffer.
class wire_writer {
  public:
    explicit wire_writer(std::span<uint8_t> buffer) : buffer_(buffer) {}

    void u8(uint8_t value) { put(value); }
    void u16(uint16_t value) { put(byte_swap(value)); }
    void u32(uint32_t value) { put(byte_swap(value)); }
    void u64(uint64_t value) { put(byte_swap(value)); }

    void zeros(size_t count) {
        if (uint8_t* to = room(count))
            std::memset(to, 0, count);
    }

    // The next count bytes for the caller to fill, or null when they do not fit.
    uint8_t* room(size_t count) {
        if (count > buffer_.size() - used_) {
            overrun_ = true;
            return nullptr;
        }
        uint8_t* to = buffer_.data() + used_;
        used_ += count;
        return to;
    }

    size_t size() const { return used_; }
    bool overrun() const { return overrun_; }

  private:
    template <typename T>
    void put(T value) {
        if (uint8_t* to = room(sizeof value))
            store_native(to, value);
    }

    std::span<uint8_t> buffer_;
    size_t used_ = 0;
    bool overrun_ = false;
};

}  // namespace kestrel
