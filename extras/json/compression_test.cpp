// What a crash leaves is cut after what is whole.
#include "compression.h"

#include <gtest/gtest.h>
#include <zlib.h>
#include <zstd.h>

#include <string>
#include <vector>

namespace {

using json_export::compression;
using json_export::packer;
using json_export::whole_length;

using bytes = std::vector<uint8_t>;

bytes bytes_of(std::string_view text) {
    return {text.begin(), text.end()};
}

size_t whole_of(compression packing, const bytes& data) {
    return whole_length(packing, data);
}

TEST(Compression, WholeLinesEndWithALineEnd) {
    EXPECT_EQ(whole_of(compression::none, bytes_of("")), 0u);
    EXPECT_EQ(whole_of(compression::none, bytes_of("{\"a\":1")), 0u);
    EXPECT_EQ(whole_of(compression::none, bytes_of("{}\n")), 3u);
    EXPECT_EQ(whole_of(compression::none, bytes_of("{}\n{\"a\"")), 3u);
    EXPECT_EQ(whole_of(compression::none, bytes_of({"{}\n{}\n\0\0", 8})), 6u);
}

// Two messages as they lie in a file, and where the first one ends.
struct two_members {
    bytes data;
    size_t first;
};

two_members members(compression packing) {
    packer made(packing);
    const bytes one = bytes_of("{\"bytes\":1}\n{\"bytes\":2}\n");
    const bytes other = bytes_of(std::string(300'000, 'x') + "\n");
    two_members found{};
    for (const bytes& message : {one, other}) {
        const auto member = made.pack(message);
        found.data.insert(found.data.end(), member.begin(), member.end());
        if (found.first == 0)
            found.first = found.data.size();
    }
    return found;
}

class Members : public testing::TestWithParam<compression> {};

TEST_P(Members, AreWholeOrNot) {
    const two_members made = members(GetParam());
    ASSERT_GT(made.first, 0u);
    ASSERT_GT(made.data.size(), made.first);
    for (size_t length = 0; length <= made.data.size(); ++length) {
        const bytes cut(made.data.begin(), made.data.begin() + static_cast<long>(length));
        const size_t expected = length == made.data.size() ? length
                                : length >= made.first     ? made.first
                                                           : 0;
        ASSERT_EQ(whole_of(GetParam(), cut), expected) << length;
    }
}

TEST_P(Members, ThatAreFollowedByAnythingElseEndThere) {
    two_members made = members(GetParam());
    const size_t whole = made.data.size();
    made.data.insert(made.data.end(), 100, 'z');
    EXPECT_EQ(whole_of(GetParam(), made.data), whole);
}

INSTANTIATE_TEST_SUITE_P(Each, Members, testing::Values(compression::gzip, compression::zstd));

TEST(Compression, AMemberOfGzipIsReadByItsLibrary) {
    packer made(compression::gzip);
    const bytes message = bytes_of("{\"bytes\":1}\n");
    const auto member = made.pack(message);
    z_stream stream{};
    ASSERT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    uint8_t room[64];
    stream.next_in = const_cast<uint8_t*>(member.data());
    stream.avail_in = static_cast<unsigned>(member.size());
    stream.next_out = room;
    stream.avail_out = sizeof room;
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(bytes(room, room + stream.total_out), message);
    (void)inflateEnd(&stream);
}

TEST(Compression, AFrameOfZstdIsReadByItsLibrary) {
    packer made(compression::zstd);
    const bytes message = bytes_of("{\"bytes\":1}\n");
    const auto frame = made.pack(message);
    uint8_t room[64];
    const size_t length = ZSTD_decompress(room, sizeof room, frame.data(), frame.size());
    ASSERT_EQ(ZSTD_isError(length), 0u);
    EXPECT_EQ(bytes(room, room + length), message);
}

}  // namespace
