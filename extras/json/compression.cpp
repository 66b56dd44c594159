// Members of gzip and frames of zstd; see compression.h.
#include "compression.h"

#include <zlib.h>
#include <zstd.h>

#include <algorithm>

namespace json_export {
namespace {

constexpr int gzip_window = 15 + 16;  // with the header of gzip
constexpr int gzip_memory = 8;
constexpr int gzip_level = 6;
constexpr int zstd_level = 3;
constexpr size_t gzip_frame = 18;  // header and trailer
constexpr uint8_t gzip_magic[] = {0x1F, 0x8B};
constexpr uint8_t zstd_magic[] = {0x28, 0xB5, 0x2F, 0xFD};
constexpr size_t discarded_bytes = size_t{64} * 1024;

size_t whole_lines(std::span<const uint8_t> data) {
    const auto last = std::find(data.rbegin(), data.rend(), uint8_t{'\n'});
    return static_cast<size_t>(data.rend() - last);
}

// Bytes of the member that data begins with; 0: it is not whole.
size_t gzip_member(z_stream& stream, std::span<const uint8_t> data) {
    uint8_t discarded[discarded_bytes];
    size_t taken = 0;
    int result = inflateReset(&stream);
    while (result == Z_OK) {
        const size_t piece = std::min(data.size() - taken, size_t{1} << 30);
        stream.next_in = const_cast<uint8_t*>(data.data() + taken);
        stream.avail_in = static_cast<unsigned>(piece);
        stream.next_out = discarded;
        stream.avail_out = sizeof discarded;
        result = inflate(&stream, Z_NO_FLUSH);
        taken += piece - stream.avail_in;
    }
    return result == Z_STREAM_END ? taken : 0;
}

size_t whole_gzip(std::span<const uint8_t> data) {
    z_stream stream{};
    if (inflateInit2(&stream, gzip_window) != Z_OK)
        return data.size();  // no memory to look
    size_t whole = 0;
    while (whole < data.size()) {
        const size_t member = gzip_member(stream, data.subspan(whole));
        if (member == 0)
            break;
        whole += member;
    }
    (void)inflateEnd(&stream);
    return whole;
}

size_t whole_zstd(std::span<const uint8_t> data) {
    size_t whole = 0;
    while (whole < data.size()) {
        const size_t frame = ZSTD_findFrameCompressedSize(data.data() + whole, data.size() - whole);
        if (ZSTD_isError(frame) != 0)
            break;
        whole += frame;
    }
    return whole;
}

}  // namespace

std::string_view suffix_of(compression packing) {
    switch (packing) {
        case compression::none:
            return "";
        case compression::gzip:
            return ".gz";
        case compression::zstd:
            return ".zst";
    }
    return "";
}

packer::~packer() {
    if (packing_ == compression::zstd)
        (void)ZSTD_freeCCtx(static_cast<ZSTD_CCtx*>(state_));
    if (packing_ == compression::gzip && state_ != nullptr) {
        (void)deflateEnd(static_cast<z_stream*>(state_));
        delete static_cast<z_stream*>(state_);
    }
}

std::span<const uint8_t> packer::pack(std::span<const uint8_t> message) {
    switch (packing_) {
        case compression::none:
            return message;
        case compression::gzip:
            return pack_gzip(message);
        case compression::zstd:
            return pack_zstd(message);
    }
    return {};
}

std::span<const uint8_t> packer::pack_gzip(std::span<const uint8_t> message) {
    auto* stream = static_cast<z_stream*>(state_);
    if (stream == nullptr) {
        stream = new z_stream{};
        if (deflateInit2(stream, gzip_level, Z_DEFLATED, gzip_window, gzip_memory,
                         Z_DEFAULT_STRATEGY) != Z_OK) {
            delete stream;
            return {};
        }
        state_ = stream;
    }
    (void)deflateReset(stream);  // fails for no stream of ours
    room_.resize(std::max<size_t>(room_.size(), deflateBound(stream, message.size())));
    stream->next_in = const_cast<uint8_t*>(message.data());
    stream->avail_in = static_cast<unsigned>(message.size());
    stream->next_out = room_.data();
    stream->avail_out = static_cast<unsigned>(room_.size());
    if (deflate(stream, Z_FINISH) != Z_STREAM_END)
        return {};
    return {room_.data(), room_.size() - stream->avail_out};
}

std::span<const uint8_t> packer::pack_zstd(std::span<const uint8_t> message) {
    if (state_ == nullptr)
        state_ = ZSTD_createCCtx();
    if (state_ == nullptr)
        return {};
    room_.resize(std::max(room_.size(), ZSTD_compressBound(message.size())));
    const size_t length =
        ZSTD_compressCCtx(static_cast<ZSTD_CCtx*>(state_), room_.data(), room_.size(),
                          message.data(), message.size(), zstd_level);
    if (ZSTD_isError(length) != 0)
        return {};
    return {room_.data(), length};
}

size_t longest_member(compression packing, size_t message) {
    switch (packing) {
        case compression::none:
            return message;
        case compression::gzip:
            return compressBound(message) + gzip_frame;
        case compression::zstd:
            return ZSTD_compressBound(message);
    }
    return message;
}

bool may_be_torn(compression packing, std::span<const uint8_t> data) {
    if (packing == compression::none || data.empty() || data[0] == 0)
        return true;
    std::span<const uint8_t> magic = gzip_magic;
    if (packing == compression::zstd)
        magic = zstd_magic;
    const size_t length = std::min(data.size(), magic.size());
    return std::ranges::equal(data.first(length), magic.first(length));
}

size_t whole_length(compression packing, std::span<const uint8_t> data) {
    switch (packing) {
        case compression::none:
            return whole_lines(data);
        case compression::gzip:
            return whole_gzip(data);
        case compression::zstd:
            return whole_zstd(data);
    }
    return data.size();
}

}  // namespace json_export
