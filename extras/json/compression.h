// Compressed files that can be cut: each message is a member of gzip or a frame of zstd of its own,
// so what is whole before a crash stays readable. The worker's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace json_export {

enum class compression { none, gzip, zstd };

// What the name of such a file ends in.
std::string_view suffix_of(compression packing);

// Makes members, one after the other, with memory that it keeps.
class packer {
  public:
    explicit packer(compression packing) : packing_(packing) {}
    ~packer();
    packer(const packer&) = delete;
    packer& operator=(const packer&) = delete;

    // The bytes to write for the message; valid until the next call. Empty: no memory.
    std::span<const uint8_t> pack(std::span<const uint8_t> message);

  private:
    std::span<const uint8_t> pack_gzip(std::span<const uint8_t> message);
    std::span<const uint8_t> pack_zstd(std::span<const uint8_t> message);

    compression packing_;
    void* state_ = nullptr;  // the library's
    std::vector<uint8_t> room_;
};

// Bytes that a message takes at most where it is written.
size_t longest_member(compression packing, size_t message);

// Whether data may be what is left of a member that a crash tore, or of one that a disk lost: its
// first bytes, or zeros.
bool may_be_torn(compression packing, std::span<const uint8_t> data);

// Bytes of the whole members or, without compression, whole lines that data begins with.
size_t whole_length(compression packing, std::span<const uint8_t> data);

}  // namespace json_export
